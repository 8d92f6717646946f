// Fatal assertions of the framework.
//
// A broken invariant of our own code aborts the process. The message is exactly the text
// the system defines for it: the asserted expression as written (OVK_ASSERT), or a given
// text (OVK_ASSERT_MSG, ovkFatal). It is printed on standard error as
//   "<file>:<line>: <function>: Assertion `<text>' failed."
// and then the process aborts. Never assert on bytes, text or configuration from outside:
// those are counted or traced instead.
#pragma once

namespace Ovk {

[[noreturn]] void assertFailed(char const* text, char const* file, int line, char const* function);

} // namespace Ovk

#define OVK_ASSERT(expr)                                                                                               \
   ((expr) ? static_cast<void>(0) : ::Ovk::assertFailed(#expr, __FILE__, __LINE__, __PRETTY_FUNCTION__))

#define OVK_ASSERT_MSG(cond, text)                                                                                     \
   ((cond) ? static_cast<void>(0) : ::Ovk::assertFailed(text, __FILE__, __LINE__, __PRETTY_FUNCTION__))

// Unconditional fatal error with the given text.
#define OVK_FATAL(text) ::Ovk::assertFailed(text, __FILE__, __LINE__, __PRETTY_FUNCTION__)
