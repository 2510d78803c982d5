#pragma once

#include <Kiv/TraceHandle.h>
#include <spdlog/logger.h>
#include <vorn/export.h>

#include <string_view>

// The platform's trace facility: named handles with one enable bit per level, and one process-wide
// setting that says which levels are on for which names. Level 0 is the lifecycle and always on;
// higher levels tell more. Lines go through one spdlog logger.
namespace Kiv {

// The logger that every trace line is written through, at spdlog's level info for level 0, unless
// it is a warning or an error, and debug for the others; it passes all. Its one sink is a queue in
// front of standard error (Kiv/QueuedSink.h), so that nobody who traces waits for whoever reads it;
// flush() waits for the queue, with a bound, and an exit of the process flushes. An agent may
// replace sinks(), which is to be done before other threads trace: a sink of its own is called by
// the thread that traces, and one that may stand still goes behind a QueuedSink. Never destroyed,
// so that static destructors can still trace. The first call starts the queue's thread.
VORN_EXPORT spdlog::logger& traceLogger();

// Replaces the trace setting of the process: a comma-separated list of NAME/LEVEL or
// NAME/FIRST-LAST, such as "GrpcServer/0-8,RPCAccounting/8,*/0". NAME is a handle's name, or * for
// every handle; LEVEL is 0 to 31. The items that match a handle add up; blanks around an item are
// ignored; an empty setting leaves only level 0. Holds for handles that exist and for those made
// later. Throws std::invalid_argument, which names the item at fault, and then leaves the setting
// as it was. Any thread may call it.
VORN_EXPORT void traceSettingIs(std::string_view setting);

}  // namespace Kiv
