/* What a test measures of the process itself: CPU time and mappings. */
#pragma once

#include <stddef.h>

#include <string>

namespace marlo_test {

/* CPU time so far of every thread of this process named \a name, in milliseconds. */
double ThreadCpuMs(const std::string& name);
/* CPU time of the whole process so far, in milliseconds. */
double ProcessCpuMs();
/* Lines of /proc/self/maps: the process's mappings. */
size_t MappingCount();
/* Mappings whose line in /proc/self/maps contains \a text (a path, "dmabuf"). */
size_t MappingsOf(const std::string& text);

}  // namespace marlo_test
