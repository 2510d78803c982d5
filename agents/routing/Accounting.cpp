#include "agents/routing/Accounting.h"

#include <VornSdkRpc/CallJournal.h>
#include <VornSdkRpc/CallSink.h>

#include <memory>
#include <stdexcept>
#include <utility>

namespace routing_agent {

namespace {

constexpr std::string_view kJson = "json:";

VornSdkRpc::CallAccountingOptions optionsOf(const AccountingOptions& options) {
  VornSdkRpc::CallAccountingOptions made;
  if (options.memoryMib != 0) made.log.memory = options.memoryMib << 20;
  made.log.history = options.historyMib << 20;
  return made;
}

}  // namespace

void checkAccountingPlace(const std::string& place) {
  if (place == "line" || place == "journal") return;
  if (place.starts_with(kJson) && place.size() > kJson.size()) return;
  throw std::invalid_argument("takes line, journal or json:FILE");
}

Accounting::Accounting(const AccountingOptions& options) : calls_(optionsOf(options)) {
  for (const auto& place : options.to) {
    checkAccountingPlace(place);
    if (place == "line") {
      calls_.add(VornSdkRpc::accountingLines());
    } else if (place == "journal") {
      calls_.add(VornSdkRpc::callJournal());
    } else {
      auto file = std::make_unique<VornSdkRpc::CallJsonFile>(place.substr(kJson.size()));
      files_.push_back(file.get());
      calls_.add(std::move(file));
    }
  }
}

void Accounting::reopen() {
  for (auto* const file : files_)
    file->reopen();
}

}  // namespace routing_agent
