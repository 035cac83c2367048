// What processes have used so far, as the system counts it.
//
// Thread: any. Failure: 0 for a process that has gone.
#pragma once

#include <sys/types.h>

#include <vector>

namespace bench {

double processor_us(const std::vector<pid_t>& processes);
double resident_kib(const std::vector<pid_t>& processes);
// How often their threads have gone to sleep, without the calling one.
double sleeps(const std::vector<pid_t>& processes);

}  // namespace bench
