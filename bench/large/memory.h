// The resident memory of a process, its peak included, as the system counts it.
#pragma once

#include <sys/types.h>

namespace bench {

// From here on the peak is counted anew.
void restart_peak(pid_t process);
double resident_mib(pid_t process);
double peak_mib(pid_t process);

}  // namespace bench
