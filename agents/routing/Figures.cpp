#include "agents/routing/Figures.h"

#include <chrono>
#include <vector>

#include "agents/routing/RoutingAgent.pb.h"

namespace routing_agent {

namespace {

using VornSdkRpc::Metrics;
using Samples = std::vector<Metrics::Sample>;

Metrics::Sample sample(const char* label, const char* value, double number) {
  return {{{label, value}}, number};
}

template <typename Number>
double asDouble(Number number) {
  return static_cast<double>(number);
}

double secondsSince1970(std::chrono::system_clock::time_point time) {
  return asDouble(std::chrono::system_clock::to_time_t(time));
}

void addTables(Metrics& metrics, const FiguresSources& from) {
  metrics.add("routing_agent_entries", "What has been taken, by table.", Metrics::gauge,
              [&tables = from.tables] {
                return Samples{sample("table", "routes", asDouble(tables.routes.size())),
                               sample("table", "groups", asDouble(tables.groups.size())),
                               sample("table", "mpls_routes", asDouble(tables.mplsRoutes.size())),
                               sample("table", "redirects", asDouble(tables.redirects.size())),
                               sample("table", "state", asDouble(tables.state.size()))};
              });
  if (from.kernel == nullptr) return;
  metrics.add("routing_agent_kernel_entries",
              "IP and MPLS routes and next-hop groups, by what became of them in the kernel.",
              Metrics::gauge, [kernel = from.kernel] {
                summary_msg counts;
                kernel->count(counts);
                return Samples{sample("state", "programmed", asDouble(counts.programmed())),
                               sample("state", "waiting", asDouble(counts.waiting())),
                               sample("state", "failed", asDouble(counts.failed())),
                               sample("state", "adopted", asDouble(counts.adopted()))};
              });
  metrics.add("routing_agent_kernel_refusals_total", "What the kernel has refused to take.",
              Metrics::counter, [kernel = from.kernel] { return asDouble(kernel->refusals()); });
  metrics.add("routing_agent_kernel_resyncs_total",
              "How often the kernel's tables were read anew, as something was lost or has failed.",
              Metrics::counter, [kernel = from.kernel] { return asDouble(kernel->resyncs()); });
}

void addBacklog(Metrics& metrics, const Backlog& backlog) {
  const auto add = [&](const char* name, const char* help, Metrics::Kind kind, auto of) {
    metrics.add(name, help, kind, [&backlog, of] { return asDouble(of(backlog.figures())); });
  };
  using All = Backlog::Figures;
  add("routing_agent_backlog_items", "Changes that are not programmed yet.", Metrics::gauge,
      [](const All& all) { return all.items; });
  add("routing_agent_backlog_bytes", "Memory that they take.", Metrics::gauge,
      [](const All& all) { return all.bytes; });
  add("routing_agent_backlog_oldest_seconds", "How long the first of them has waited.",
      Metrics::gauge,
      [](const All& all) { return std::chrono::duration<double>(all.oldest).count(); });
  add("routing_agent_backlog_done_total", "Changes that have been programmed.", Metrics::counter,
      [](const All& all) { return all.done; });
  add("routing_agent_backlog_failed_total", "Changes that could not be.", Metrics::counter,
      [](const All& all) { return all.failed; });
  add("routing_agent_backlog_steps_total", "Steps in which they were programmed.", Metrics::counter,
      [](const All& all) { return all.runs; });
  add("routing_agent_backlog_step_items", "Changes that the next step programs at most.",
      Metrics::gauge, [](const All& all) { return all.step; });
  add("routing_agent_backlog_refused_total", "Changes that there was no room for.",
      Metrics::counter, [](const All& all) { return all.refused; });
}

void addConnections(Metrics& metrics, const VornSdkRpc::Listener& listener) {
  metrics.add("routing_agent_connections_open", "Connections of clients.", Metrics::gauge,
              [&listener] { return asDouble(listener.openConnections()); });
  metrics.add("routing_agent_connections_accepted_total", "Connections that have been taken.",
              Metrics::counter, [&listener] { return asDouble(listener.figures().accepted); });
  metrics.add("routing_agent_connections_refused_total", "Connections that were closed at once.",
              Metrics::counter, [&listener] {
                const auto all = listener.figures();
                return Samples{sample("why", "descriptors", asDouble(all.refusedForDescriptors)),
                               sample("why", "callers", asDouble(all.refusedForCallers)),
                               sample("why", "peer", asDouble(all.refusedForPeer)),
                               sample("why", "flood", asDouble(all.refusedForFlood))};
              });
  metrics.add("routing_agent_connections_flooding_total",
              "Connections that were closed for a flood.", Metrics::counter,
              [&listener] { return asDouble(listener.figures().closedForFlood); });
}

void addAccess(Metrics& metrics, const Access& access) {
  if (const auto* const policy = access.policy()) {
    metrics.add(
        "routing_agent_policy_decisions_total", "Calls, by the rule that has decided.",
        Metrics::counter, [policy] {
          Samples samples;
          const auto state = policy->guard()->state();
          for (const auto& rule : state.rules) {
            samples.push_back({{{"decision", rule.allows ? "allow" : "deny"}, {"rule", rule.name}},
                               asDouble(rule.hits)});
          }
          samples.push_back({{{"decision", "deny"}, {"rule", ""}}, asDouble(state.unmatched)});
          return samples;
        });
    metrics.add("routing_agent_policy_broken", "1 while the policy's file is of no use.",
                Metrics::gauge, [policy] { return policy->error().empty() ? 0.0 : 1.0; });
  }
  if (const auto* const certificates = access.certificates()) {
    metrics.add(
        "routing_agent_certificate_expires_timestamp_seconds",
        "When what is in use expires, in seconds since 1970.", Metrics::gauge, [certificates] {
          using Time = VornSdkRpc::CertificateState::Time;
          const auto state = certificates->state();
          Samples samples{sample("what", "certificate", secondsSince1970(state.expires)),
                          sample("what", "authorities", secondsSince1970(state.authoritiesExpire))};
          if (state.revocationsExpire != Time::max()) {
            samples.push_back(
                sample("what", "revocations", secondsSince1970(state.revocationsExpire)));
          }
          return samples;
        });
  }
}

}  // namespace

void addFigures(Metrics& metrics, const FiguresSources& from) {
  addTables(metrics, from);
  addBacklog(metrics, from.backlog);
  addConnections(metrics, from.listener);
  addAccess(metrics, from.access);
}

Figures::Figures(const Metrics& metrics, const FiguresOptions& options) {
  if (!options.address.empty())
    server_ = std::make_unique<VornSdkRpc::MetricsServer>(metrics, options.address);
  if (!options.file.empty())
    file_ = std::make_unique<VornSdkRpc::MetricsFile>(metrics, options.file);
}

}  // namespace routing_agent
