// Trace library stand-in.  Hot paths call MC_OutTrace for every entry and
// leave line, so a line that is filtered out or has nowhere to go returns
// after a few relaxed atomic loads, before any formatting.

#include "mc_logapi.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <shared_mutex>
#include <string>

namespace {

constexpr int kMaxLevel = 5;
constexpr int kDefaultSizeKiB = 1000;
constexpr int kDefaultNum = 10;

// ---- Process-wide settings from the environment ---------------------------

std::atomic<bool> g_env_loaded{false};
std::mutex g_env_load_mu;  // serialises loads and reloads
// Guards g_env_dir, which threads read only when g_env_gen has moved.  A
// plain mutex, not a rwlock: only a mutex can be released in a fork child.
std::mutex g_env_mu;
std::atomic<int> g_level{kMaxLevel};
// Writers load this without a lock.  A reload never closes a descriptor a
// writer may still hold: it dup2()s the new target over the one descriptor
// this library owns, so a racing line lands in the old or the new file and
// never in somebody else's.
std::atomic<int> g_default_fd{-1};
int g_owned_fd = -1;  // under g_env_load_mu
std::atomic<unsigned> g_env_gen{0};
std::string g_env_dir;  // MC_TRACE_DIR; empty = not set

int parse_level(const char* s) {
    if (s == nullptr || *s == '\0') return kMaxLevel;
    char* end = nullptr;
    errno = 0;
    long v = std::strtol(s, &end, 10);
    if (errno != 0 || *end != '\0' || v < 1 || v > kMaxLevel) return kMaxLevel;
    return static_cast<int>(v);
}

// Points the owned descriptor at target (a fresh descriptor, consumed).
int adopt_default_fd(int target) {
    if (g_owned_fd < 0) {
        g_owned_fd = target;
    } else if (target != g_owned_fd) {
        ::dup2(target, g_owned_fd);
        ::close(target);
    }
    return g_owned_fd;
}

// Caller holds g_env_load_mu.
void load_env_locked() {
    int fd = -1;
    const char* file = std::getenv("MC_TRACE_FILE");
    if (file != nullptr && *file != '\0') {
        if (std::strcmp(file, "-") == 0) {
            fd = g_owned_fd >= 0 ? adopt_default_fd(::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0))
                                 : STDERR_FILENO;
        } else {
            int nfd = ::open(file, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
            if (nfd >= 0) fd = adopt_default_fd(nfd);
        }
    }
    {
        std::lock_guard<std::mutex> lk(g_env_mu);
        const char* dir = std::getenv("MC_TRACE_DIR");
        g_env_dir = (dir != nullptr) ? dir : "";
    }
    g_level.store(parse_level(std::getenv("MC_TRACE_LEVEL")), std::memory_order_relaxed);
    g_default_fd.store(fd, std::memory_order_release);
    g_env_gen.fetch_add(1, std::memory_order_release);
}

inline void ensure_env() {
    if (g_env_loaded.load(std::memory_order_acquire)) return;
    std::lock_guard<std::mutex> lk(g_env_load_mu);
    if (g_env_loaded.load(std::memory_order_relaxed)) return;
    load_env_locked();
    g_env_loaded.store(true, std::memory_order_release);
}

// A child forked while another thread held one of these would inherit it
// locked for good.
void atfork_prepare() {
    g_env_load_mu.lock();
    g_env_mu.lock();
}
void atfork_release() {
    g_env_mu.unlock();
    g_env_load_mu.unlock();
}
struct AtforkRegistrar {
    AtforkRegistrar() { ::pthread_atfork(atfork_prepare, atfork_release, atfork_release); }
} g_atfork_registrar;

// ---- Capture hook -----------------------------------------------------------

// Callbacks run under the shared lock, so once MC_TestSetCapture returns no
// thread is still inside the callback it replaced.
std::shared_mutex g_cap_mu;
std::atomic<bool> g_cap_on{false};
MC_TraceCapture g_cap_fn = nullptr;
void* g_cap_ctx = nullptr;
thread_local bool t_in_capture = false;  // a callback that traces must not re-enter

// ---- Per-thread settings -------------------------------------------------

struct ThreadSettings {
    std::string proc;
    bool proc_set = false;
    std::string dir;
    std::string file;
    bool has_file = false;
    bool open_failed = false;  // remembered until the next MC_SetTraceName
    unsigned path_gen = 0;      // g_env_gen the cached path was built for
    std::string path;
    long size_kib = kDefaultSizeKiB;
    int num = kDefaultNum;
};

thread_local ThreadSettings t_set;

std::string join_path(const std::string& dir, const std::string& file) {
    if (dir.empty()) return file;
    size_t d = dir.size();
    while (d > 0 && dir[d - 1] == '/') --d;
    size_t f = 0;
    while (f < file.size() && file[f] == '/') ++f;
    std::string out(dir, 0, d);
    out += '/';
    out.append(file, f, std::string::npos);
    return out;
}

// True when the thread has a file of its own that is worth trying; rebuilds
// the cached path (and forgets a failed open) after an environment reload.
bool thread_file_usable() {
    if (!t_set.has_file) return false;
    unsigned gen = g_env_gen.load(std::memory_order_acquire);
    if (t_set.path_gen != gen || t_set.path.empty()) {
        std::string env_dir;
        {
            std::lock_guard<std::mutex> lk(g_env_mu);
            env_dir = g_env_dir;
        }
        t_set.open_failed = false;
        t_set.path = join_path(env_dir.empty() ? t_set.dir : env_dir, t_set.file);
        t_set.path_gen = gen;
    }
    return !t_set.open_failed;
}

// ---- Output ----------------------------------------------------------------

bool write_all(int fd, const char* p, size_t n) {
    // O_APPEND makes one write() one unit; a short write on a regular file
    // only happens on a full disk, where finishing the line is all we can do.
    while (n > 0) {
        ssize_t w = ::write(fd, p, n);
        if (w < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        p += w;
        n -= static_cast<size_t>(w);
    }
    return true;
}

std::string rotated_name(const std::string& path, int i) {
    return path + "." + std::to_string(i);
}

// Called with fd open on the file just written.  The flock serialises
// rotation across threads and processes; the size and the identity of the
// file behind the path are re-checked under it because another writer may
// have rotated in the meantime.
void maybe_rotate(int fd, const std::string& path, long size_kib, int num) {
    if (size_kib <= 0) return;
    const off_t limit = static_cast<off_t>(size_kib) * 1024;
    struct stat st;
    if (::fstat(fd, &st) != 0 || st.st_size <= limit) return;
    if (::flock(fd, LOCK_EX) != 0) return;
    struct stat cur;
    if (::fstat(fd, &st) == 0 && ::stat(path.c_str(), &cur) == 0 && cur.st_dev == st.st_dev &&
        cur.st_ino == st.st_ino && st.st_size > limit) {
        if (num <= 1) {
            ::unlink(path.c_str());
        } else {
            ::unlink(rotated_name(path, num - 1).c_str());
            for (int i = num - 2; i >= 1; --i)
                ::rename(rotated_name(path, i).c_str(), rotated_name(path, i + 1).c_str());
            ::rename(path.c_str(), rotated_name(path, 1).c_str());
        }
    }
    ::flock(fd, LOCK_UN);
}

// Returns false when the thread's file could not be opened.
bool write_thread_file(const char* line, size_t len) {
    const std::string& path = t_set.path;
    int fd = ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) return false;
    write_all(fd, line, len);
    maybe_rotate(fd, path, t_set.size_kib, t_set.num);
    ::close(fd);
    return true;
}

void write_default(const char* line, size_t len) {
    int fd = g_default_fd.load(std::memory_order_acquire);
    if (fd >= 0) write_all(fd, line, len);
}

const char* proc_name() {
    if (t_set.proc_set) return t_set.proc.c_str();
    return program_invocation_short_name;
}

// The process and thread ids of the header: a system call each, so looked
// up once per thread; the thread that forks reads them afresh in the child.
thread_local long t_pid = 0, t_tid = 0;
struct IdResetRegistrar {
    IdResetRegistrar() { ::pthread_atfork(nullptr, nullptr, [] { t_pid = 0, t_tid = 0; }); }
} g_id_reset_registrar;

// Formats the header into buf; returns its length.
size_t format_header(char* buf, size_t cap, const char* module, int line, int level) {
    if (t_tid == 0) t_pid = ::getpid(), t_tid = ::syscall(SYS_gettid);
    struct timespec ts;
    ::clock_gettime(CLOCK_REALTIME, &ts);
    struct tm tm;
    ::localtime_r(&ts.tv_sec, &tm);
    int n = std::snprintf(buf, cap, "%04d-%02d-%02d %02d:%02d:%02d.%06ld %s[%ld.%ld] L%d %s:%d ",
                          tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min,
                          tm.tm_sec, static_cast<long>(ts.tv_nsec / 1000), proc_name(),
                          t_pid, t_tid,
                          level, module != nullptr ? module : "(null)", line);
    return n < 0 ? 0 : static_cast<size_t>(n);
}

void emit(const char* module, int line, int level, const char* fmt, va_list ap, bool to_file) {
    // Header: up to ~80 fixed characters plus the names; the stack buffer
    // serves nearly every line, longer ones get a heap buffer.
    char stack_buf[1024];
    char* buf = stack_buf;
    size_t cap = sizeof stack_buf;
    char* heap = nullptr;

    // A line that only the capture sees needs no header.
    size_t hlen = to_file ? format_header(buf, cap, module, line, level) : 0;
    if (hlen + 1 >= cap) {
        cap = hlen + 256;
        heap = static_cast<char*>(std::malloc(cap));
        if (heap == nullptr) return;
        buf = heap;
        hlen = format_header(buf, cap, module, line, level);
    }
    va_list ap2;
    va_copy(ap2, ap);
    int m = std::vsnprintf(buf + hlen, cap - hlen, fmt != nullptr ? fmt : "", ap);
    if (m < 0) m = 0;
    size_t mlen = static_cast<size_t>(m);
    if (hlen + mlen + 2 > cap) {
        size_t ncap = hlen + mlen + 2;
        char* nb = static_cast<char*>(std::malloc(ncap));
        if (nb == nullptr) {
            // Out of memory: keep what fitted rather than lose the line.
            mlen = cap - hlen - 2;
        } else {
            std::memcpy(nb, buf, hlen);
            std::vsnprintf(nb + hlen, ncap - hlen, fmt != nullptr ? fmt : "", ap2);
            std::free(heap);
            heap = nb;
            buf = nb;
            cap = ncap;
        }
    }
    va_end(ap2);
    buf[hlen + mlen] = '\0';

    if (g_cap_on.load(std::memory_order_acquire) && !t_in_capture) {
        std::shared_lock<std::shared_mutex> rl(g_cap_mu);
        if (g_cap_fn != nullptr) {
            t_in_capture = true;
            g_cap_fn(g_cap_ctx, level, module != nullptr ? module : "", line, buf + hlen);
            t_in_capture = false;
        }
    }

    if (!to_file) {
        std::free(heap);
        return;
    }
    buf[hlen + mlen] = '\n';
    size_t len = hlen + mlen + 1;
    bool done = false;
    if (thread_file_usable()) {
        done = write_thread_file(buf, len);
        if (!done) t_set.open_failed = true;
    }
    if (!done) write_default(buf, len);
    std::free(heap);
}

}  // namespace

extern "C" {

void MC_OutTrace(const char* module, int line, int level, const char* fmt, ...) {
    ensure_env();
    if (level > g_level.load(std::memory_order_relaxed)) return;
    const bool to_file = g_default_fd.load(std::memory_order_relaxed) >= 0 || thread_file_usable();
    if (!to_file && !g_cap_on.load(std::memory_order_relaxed)) return;
    int saved_errno = errno;  // callers trace errno after the fact
    va_list ap;
    va_start(ap, fmt);
    emit(module, line, level, fmt, ap, to_file);
    va_end(ap);
    errno = saved_errno;
}

void MC_SetLogProcName(const char* name) {
    if (name == nullptr) {
        t_set.proc_set = false;
        t_set.proc.clear();
        return;
    }
    t_set.proc = name;
    t_set.proc_set = true;
}

void MC_SetTraceName(const char* dir, const char* file) {
    t_set.open_failed = false;
    t_set.path.clear();
    if (file == nullptr || *file == '\0') {
        t_set.has_file = false;
        t_set.dir.clear();
        t_set.file.clear();
        return;
    }
    t_set.dir = dir != nullptr ? dir : "";
    t_set.file = file;
    t_set.has_file = true;
}

void MC_SetTraceSizeNum(int size, int num) {
    t_set.size_kib = size > 0 ? size : kDefaultSizeKiB;
    t_set.num = num > 0 ? num : kDefaultNum;
}

char* MC_FilePathDel(char* path) {
    static char unknown[] = "???";
    if (path == nullptr) return unknown;
    char* slash = std::strrchr(path, '/');
    return slash != nullptr ? slash + 1 : path;
}

void MC_TestSetCapture(MC_TraceCapture fn, void* ctx) {
    std::unique_lock<std::shared_mutex> wl(g_cap_mu);
    g_cap_fn = fn;
    g_cap_ctx = ctx;
    g_cap_on.store(fn != nullptr, std::memory_order_release);
}

void MC_TestReloadEnv(void) {
    std::lock_guard<std::mutex> lk(g_env_load_mu);
    load_env_locked();
    g_env_loaded.store(true, std::memory_order_release);
}

}  // extern "C"
