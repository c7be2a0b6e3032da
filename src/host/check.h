// Invariant checks and the catch-all at every boundary.
//
// MQ_ASSERT checks a precondition at the top of an engine or host entry
// point, in every build: a failure throws InvariantViolation naming the
// condition, the file and the line, and the boundary around the call turns
// it into an error report. MQ_DCHECK checks an invariant inside a hot loop,
// in debug builds only, and aborts there: hot paths never throw.
//
// A boundary (a plug-in entry point, a callback from the tracer, a command
// handler, a file loader) wraps its body in MQ_BOUNDARY_BEGIN and
// MQ_BOUNDARY_END(report), where report is anything callable with the
// message of what was thrown (a std::string). Control goes on after
// MQ_BOUNDARY_END, so the failure result follows it:
//
//     bool Mosaiq::fitCropBox() {
//         MQ_BOUNDARY_BEGIN
//         ...
//         return true;
//         MQ_BOUNDARY_END(mq::reportError)
//         return false;
//     }
#pragma once

#include <stdexcept>
#include <string>

namespace mq {

// A broken precondition or invariant: a fault of the caller or of this
// system, never of the user's data.
class InvariantViolation : public std::logic_error {
public:
    using std::logic_error::logic_error;
};

[[noreturn]] void failInvariant(const char* condition, const char* message, const char* file,
                                int line);
[[noreturn]] void abortInvariant(const char* condition, const char* file, int line) noexcept;

// What the exception in flight says, for a user: "out of memory" for
// std::bad_alloc, what() for other standard exceptions. Call only inside a
// catch block.
std::string currentExceptionText();

// For a boundary with no caller to answer: the current host interface's
// warnings when there is one, standard error otherwise. Never throws.
void reportError(const std::string& message) noexcept;

}  // namespace mq

#define MQ_ASSERT(condition, message)                                     \
    do {                                                                  \
        if (!(condition)) [[unlikely]]                                    \
            ::mq::failInvariant(#condition, message, __FILE__, __LINE__); \
    } while (false)

#ifdef NDEBUG
#define MQ_DCHECK(condition) \
    do {                     \
    } while (false)
#else
#define MQ_DCHECK(condition)                                      \
    do {                                                          \
        if (!(condition)) [[unlikely]]                            \
            ::mq::abortInvariant(#condition, __FILE__, __LINE__); \
    } while (false)
#endif

#define MQ_BOUNDARY_BEGIN try {
// Variadic, so a lambda with commas in its body can be the report.
#define MQ_BOUNDARY_END(...)                         \
    }                                                \
    catch (...) {                                    \
        (__VA_ARGS__)(::mq::currentExceptionText()); \
    }
