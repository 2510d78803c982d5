#pragma once

#include <VornSdkRpc/CallAccounting.h>
#include <VornSdkRpc/CallJson.h>

#include <cstddef>
#include <string>
#include <vector>

namespace routing_agent {

// Where completion records go, and how many are kept.
struct AccountingOptions {
  std::vector<std::string> to{"line"};  // "line", "journal" or "json:FILE", each; none: nowhere
  std::size_t memoryMib = 0;            // that records may take; 0: any
  std::size_t historyMib = 4;           // of records that are kept for who watches

  bool operator==(const AccountingOptions&) const = default;
};

// Throws std::invalid_argument when records can't go to a place of that name.
void checkAccountingPlace(const std::string& place);

// The agent's completion records. Must outlive the server.
class Accounting {
 public:
  // Throws std::invalid_argument, and spdlog::spdlog_ex when a file can't be opened.
  explicit Accounting(const AccountingOptions& options);

  VornSdkRpc::CallAccounting& calls() { return calls_; }

  // Goes on in the files that have the names by now. Throws spdlog::spdlog_ex. Any thread.
  void reopen();

 private:
  VornSdkRpc::CallAccounting calls_;
  std::vector<VornSdkRpc::CallJsonFile*> files_;  // which calls_ owns
};

}  // namespace routing_agent
