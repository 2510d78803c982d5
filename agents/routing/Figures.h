#pragma once

#include <VornSdkRpc/Listener.h>
#include <VornSdkRpc/Metrics.h>

#include <memory>
#include <string>

#include "agents/routing/Backlog.h"
#include "agents/routing/Identity.h"
#include "agents/routing/KernelSync.h"
#include "agents/routing/Tables.h"

// The agent's own figures, beside those of its calls.
namespace routing_agent {

struct FiguresOptions {
  std::string address;  // HOST:PORT or PORT, for Prometheus; empty: nowhere
  std::string file;     // for the node exporter; empty: none

  bool any() const { return !address.empty() || !file.empty(); }
  bool operator==(const FiguresOptions&) const = default;
};

// What the figures are read from. Must outlive the figures.
struct FiguresSources {
  const Tables& tables;
  const Backlog& backlog;
  const KernelSync* kernel;  // null: there is none
  const VornSdkRpc::Listener& listener;
  const Access& access;
};

// Adds them, before the figures are read.
void addFigures(VornSdkRpc::Metrics& metrics, const FiguresSources& from);

// Offers the figures as long as it lives.
class Figures {
 public:
  // Throws std::runtime_error when it can't listen or write there.
  Figures(const VornSdkRpc::Metrics& metrics, const FiguresOptions& options);

  // 0 when nothing is listened on.
  int port() const { return server_ ? server_->port() : 0; }

 private:
  std::unique_ptr<VornSdkRpc::MetricsServer> server_;
  std::unique_ptr<VornSdkRpc::MetricsFile> file_;
};

}  // namespace routing_agent
