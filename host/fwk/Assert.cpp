#include "host/fwk/Assert.h"

#include <cstdio>
#include <cstdlib>

namespace Ovk {

void assertFailed(char const* text, char const* file, int line, char const* function) {
   // stdio, not iostreams: this may run while static objects are being torn down.
   std::fprintf(stderr, "%s:%d: %s: Assertion `%s' failed.\n", file, line, function, text);
   std::fflush(stderr);
   std::abort();
}

} // namespace Ovk
