// Atomic file output: a temporary beside the target, fsync, rename; and the
// list of temporaries in flight that a signal handler may unlink.
#include "host/atomic_file.h"

#include <fcntl.h>
#include <limits.h>
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <optional>

namespace mq {

namespace fs = std::filesystem;

namespace {

// One entry of the list of temporaries in flight. A signal handler takes a
// live entry (kLive -> kRemoving) before it reads the path, and a writer
// frees an entry only when no handler holds it, so a path is never rewritten
// while a handler reads it.
enum TrackState : int { kFree, kFilling, kLive, kRemoving, kRemoved };
static_assert(std::atomic<int>::is_always_lock_free, "signal handlers need lock-free atomics");

struct Tracked {
    std::atomic<int> state{kFree};
    char path[PATH_MAX];
};
Tracked gTracked[kTrackedTemporaries];

// The entry now listing path; -1 when the list is full or the path too long.
int track(const std::string& path) {
    if (path.size() >= PATH_MAX) return -1;
    for (int i = 0; i < kTrackedTemporaries; ++i) {
        int expected = kFree;
        if (!gTracked[i].state.compare_exchange_strong(expected, kFilling)) continue;
        std::memcpy(gTracked[i].path, path.c_str(), path.size() + 1);
        gTracked[i].state.store(kLive);
        return i;
    }
    return -1;
}

void untrack(int entry) {
    if (entry < 0) return;
    for (int state = gTracked[entry].state.load();;) {
        // A handler on another thread is unlinking the file; it is quick.
        if (state == kRemoving) {
            sched_yield();
            state = gTracked[entry].state.load();
        } else if (gTracked[entry].state.compare_exchange_weak(state, kFree)) {
            return;
        }
    }
}

bool removedBySignal(int entry) {
    if (entry < 0) return false;
    const int state = gTracked[entry].state.load();
    return state == kRemoving || state == kRemoved;
}

// Six characters unlikely to repeat across processes and calls; O_EXCL
// settles any clash. Needs no file descriptor, unlike std::random_device.
std::string randomSuffix() {
    static constexpr char kChars[] = "abcdefghijklmnopqrstuvwxyz0123456789";
    static std::atomic<uint64_t> counter{0};
    uint64_t x = uint64_t(::getpid()) << 32 ^
                 uint64_t(std::chrono::steady_clock::now().time_since_epoch().count()) ^
                 (counter.fetch_add(1) * 0x9E3779B97F4A7C15ull);
    // splitmix64 finaliser
    x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ull;
    x = (x ^ (x >> 27)) * 0x94D049BB133111EBull;
    x ^= x >> 31;
    std::string s;
    for (int i = 0; i < 6; ++i, x /= 36) s += kChars[x % 36];
    return s;
}

// A fresh, empty, listed file beside the target, removed again unless
// commit() renamed it over the target.
class Temporary {
public:
    explicit Temporary(const fs::path& file) : file_(file) {
        std::error_code ec;
        if (fs::is_directory(file, ec)) fail("is a folder");
        const fs::path folder = file.parent_path().empty() ? fs::path(".") : file.parent_path();
        if (!fs::is_directory(folder, ec)) fail("folder " + folder.string() + " does not exist");
        // A replaced file keeps its permissions.
        struct stat st {};
        if (::stat(file.c_str(), &st) == 0 && S_ISREG(st.st_mode)) mode_ = st.st_mode & 07777;

        const std::string ext = file.extension().string();
        // A name near the length limit gets a short temporary name, keeping a
        // short extension.
        bool shortName = false;
        for (int attempt = 0; attempt < 100; ++attempt) {
            std::string name = ".";
            name += shortName ? std::string("mosaiq") : file.stem().string();
            name += ".tmp-" + randomSuffix();
            if (!shortName || ext.size() <= 16) name += ext;
            path_ = (folder / name).string();
            // Listed before it exists, so no signal finds it unlisted.
            entry_ = track(path_);
            fd_ = ::open(path_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
            if (fd_ >= 0) break;
            const int err = errno;
            untrack(entry_);
            entry_ = -1;
            if (err == ENAMETOOLONG && !shortName) {
                shortName = true;
            } else if (err != EEXIST) {
                fail("cannot create temporary file " + path_ + ": " + std::strerror(err));
            }
        }
        if (fd_ < 0) fail("cannot create a temporary file beside it");
    }
    ~Temporary() {
        if (fd_ >= 0) ::close(fd_);
        if (!renamed_) ::unlink(path_.c_str());
        untrack(entry_);
    }
    Temporary(const Temporary&) = delete;
    Temporary& operator=(const Temporary&) = delete;

    int fd() const { return fd_; }
    const std::string& path() const { return path_; }

    [[noreturn]] void fail(const std::string& reason) const { throw FileWriteError(file_, reason); }
    [[noreturn]] void failOnErrno(const std::string& what) const {
        fail(what + " " + path_ + ": " + std::strerror(errno));
    }

    // Flushes the content (whichever descriptor wrote it) and renames it over
    // the target.
    void commit() {
        if (mode_) ::fchmod(fd_, *mode_);
        if (::fsync(fd_) != 0) failOnErrno("cannot flush");
        const int closed = ::close(fd_);
        fd_ = -1;
        if (closed != 0) failOnErrno("cannot close");
        if (removedBySignal(entry_)) fail("stopped by a signal; the temporary was removed");
        if (::rename(path_.c_str(), file_.c_str()) != 0) failOnErrno("cannot replace it with");
        renamed_ = true;
    }

private:
    fs::path file_;
    std::string path_;
    int fd_ = -1;
    int entry_ = -1;
    std::optional<mode_t> mode_;
    bool renamed_ = false;
};

}  // namespace

FileWriteError::FileWriteError(const fs::path& file, const std::string& reason)
    : std::runtime_error(file.string() + ": " + reason), file_(file), reason_(reason) {}

void writeFileAtomically(const fs::path& file, std::string_view bytes) {
    Temporary tmp(file);
    size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t n = ::write(tmp.fd(), bytes.data() + done, bytes.size() - done);
        if (n < 0) {
            if (errno == EINTR) continue;
            tmp.failOnErrno("cannot write");
        }
        done += size_t(n);
    }
    tmp.commit();
}

void writeFileAtomically(const fs::path& file,
                         const std::function<void(const fs::path& temporary)>& write) {
    Temporary tmp(file);
    write(fs::path(tmp.path()));
    tmp.commit();
}

void removeTemporaryFiles() noexcept {
    const int savedErrno = errno;
    for (Tracked& t : gTracked) {
        int expected = kLive;
        if (!t.state.compare_exchange_strong(expected, kRemoving)) continue;
        ::unlink(t.path);
        t.state.store(kRemoved);
    }
    errno = savedErrno;
}

}  // namespace mq
