#include "host/check.h"

#include "host/interface.h"

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <new>

namespace mq {

void failInvariant(const char* condition, const char* message, const char* file, int line) {
    throw InvariantViolation(std::string("internal error: ") + message + " (" + condition +
                             " failed at " + file + ":" + std::to_string(line) + ")");
}

void abortInvariant(const char* condition, const char* file, int line) noexcept {
    std::fprintf(stderr, "mosaiq: internal error: %s failed at %s:%d\n", condition, file, line);
    std::abort();
}

std::string currentExceptionText() {
    try {
        throw;
    } catch (const std::bad_alloc&) {
        return "out of memory";
    } catch (const std::exception& e) {
        return e.what();
    } catch (...) {
        return "unexpected failure";
    }
}

void reportError(const std::string& message) noexcept {
    try {
        if (HostInterface* ip = GetCOREInterface()) {
            ip->warning(message);
            return;
        }
    } catch (...) {
        // Fall through to standard error.
    }
    std::fprintf(stderr, "mosaiq: %s\n", message.c_str());
}

}  // namespace mq
