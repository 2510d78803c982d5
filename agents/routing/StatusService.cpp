#include "agents/routing/StatusService.h"

#include <VornSdkRpc/Certificates.h>

namespace routing_agent {

namespace {

using Time = std::chrono::system_clock::time_point;

// Nanoseconds since 1970; 0: never.
std::uint64_t nanoseconds(Time time) {
  if (time == Time::max()) return 0;
  const auto since = std::chrono::duration_cast<std::chrono::nanoseconds>(time.time_since_epoch());
  return static_cast<std::uint64_t>(since.count());
}

}  // namespace

StatusService::StatusService(const StatusSources& from) : Service("Status"), from_(from) {
  method(&Async::RequestGet, [this](const get_status_msg&, status_msg& reply) {
    reply = now();
    return grpc::Status::OK;
  });
}

status_msg StatusService::now() const {
  status_msg status;
  status.set_version(ROUTING_AGENT_VERSION);
  status.set_started(nanoseconds(started_));
  status.set_time(nanoseconds(std::chrono::system_clock::now()));
  const auto& tables = from_.tables;
  status.set_routes(tables.routes.size());
  status.set_groups(tables.groups.size());
  status.set_mpls_routes(tables.mplsRoutes.size());
  status.set_redirects(tables.redirects.size());
  status.set_sessions(tables.sessions.size());
  status.set_state_entries(tables.state.size());
  status.set_programs_kernel(from_.kernel != nullptr);
  if (from_.kernel) from_.kernel->count(*status.mutable_kernel());
  addBacklog(status);
  if (const auto& primary = from_.election.primary()) {
    status.mutable_primary()->set_high(primary->high);
    status.mutable_primary()->set_low(primary->low);
  }
  if (from_.accounting) status.set_records_lost(from_.accounting->calls().missed());
  addCertificates(status);
  return status;
}

void StatusService::addBacklog(status_msg& status) const {
  const auto figures = from_.backlog.figures();
  auto& backlog = *status.mutable_backlog();
  backlog.set_waiting(from_.backlog.waiting() + (from_.kernel ? from_.kernel->waiting() : 0));
  backlog.set_bytes(figures.bytes);
  backlog.set_oldest(static_cast<std::uint64_t>(figures.oldest.count()));
  backlog.set_done(figures.done);
  backlog.set_failed(figures.failed);
  backlog.set_refused(figures.refused);
  backlog.set_dropped(from_.election.dropped());
}

void StatusService::addCertificates(status_msg& status) const {
  const auto* const certificates = from_.access.certificates();
  if (!certificates) return;
  const auto state = certificates->state();
  status.set_certificate_expires(nanoseconds(state.expires));
  status.set_authorities_expire(nanoseconds(state.authoritiesExpire));
  status.set_revocations_expire(nanoseconds(state.revocationsExpire));
}

}  // namespace routing_agent
