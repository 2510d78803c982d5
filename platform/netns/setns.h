#pragma once

#include <sched.h>  // setns and CLONE_NEWNET
#include <vorn/export.h>

// Moves the calling thread into the namespace of kind `nstype` (CLONE_NEWNET) that is called
// `name`: the one whose file is /var/run/netns/NAME, as `ip netns` lays them out. Returns 0, or -1
// with errno set: EINVAL for a name that is empty or would leave that folder, and otherwise what
// open(2) or setns(2) said. Other threads stay where they are. Needs CAP_SYS_ADMIN.
VORN_EXPORT int setnsByName(const char* name, int nstype);
