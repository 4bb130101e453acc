// Compiles only if no public header uses a type whose width depends on the consumer's flags.

#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <forward_list>
#include <functional>
#include <future>
#include <ios>
#include <istream>
#include <limits>
#include <memory>
#include <mutex>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <variant>
#include <vector>

// What the standard headers say of them has been read.
#pragma GCC poison off_t ino_t blkcnt_t fsblkcnt_t fsfilcnt_t time_t suseconds_t
#pragma GCC poison timespec timeval fpos_t

#include <ovra/ovra.h>
