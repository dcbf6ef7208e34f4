#include "CheckedCall.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace platform_check {

void abortWithError(int rc, const char* what)
{
    // One fprintf, so that the line is not interleaved with another
    // thread's output on its way out.
    std::fprintf(stderr, "CommsChannel: %s failed: %s\n", what != nullptr ? what : "(unnamed call)",
                 std::strerror(rc));
    std::abort();
}

}  // namespace platform_check
