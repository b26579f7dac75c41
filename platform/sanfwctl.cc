// Firmware-control stand-in: NV memory is a file shared by every process that
// names the same image, so processes on one image behave like controllers on
// one NV memory.  A request is atomic against threads (process mutex) and
// processes (flock on the image, on a descriptor of this process's own).

#include "sanfwctl.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

static_assert(sizeof(cpfw_nv_region_t) == 4, "NV region number is 32-bit");
static_assert(sizeof(cpfw_ioctl_nv_access) == 24, "NV request is three 64-bit words");
static_assert(offsetof(cpfw_ioctl_nv_access, nv_offset) == 8, "NV request layout");
static_assert(offsetof(cpfw_ioctl_nv_access, len) == 16, "NV request layout");
static_assert(sizeof(sanfw_getstatus_out_t) == 40, "status record is 40 bytes");
static_assert(offsetof(sanfw_getstatus_out_t, master_cont) == 3, "master_cont is byte 3");

namespace {

constexpr const char* kDefaultImage = "/var/tmp/sanfwctl-nv.img";
constexpr uint64_t kDefaultSize = 1024 * 1024;
constexpr cpfw_nv_region_t kRegion = 2;
constexpr int kKinds = 3;

// Result codes: injected faults give -1 as the real library's generic
// failure; the others carry an errno to help whoever reads a trace.
constexpr int kFault = -1;

struct Fault {
    long start = 0;
    long count = 0;  // 0 = off, -1 = for ever
};

// One mutex guards all state and serialises transfers of this process.
std::mutex g_mu;
bool g_env_read = false;
std::string g_image;
uint64_t g_create_size = kDefaultSize;
int g_fd = -1;
uint64_t g_size = 0;  // of the open image
// A "mem:" image: no file and no flock, since no other process shares it.
std::string g_mem_name;
std::vector<char> g_mem;
long g_calls[kKinds] = {0, 0, 0};
Fault g_fault[kKinds];

const char* const kFaultVar[kKinds] = {"SANFWCTL_FAIL_READ", "SANFWCTL_FAIL_WRITE",
                                       "SANFWCTL_FAIL_STATUS"};

Fault parse_fault(const char* s) {
    Fault f;
    if (s == nullptr || *s == '\0') return f;
    char* end = nullptr;
    errno = 0;
    long start = std::strtol(s, &end, 10);
    if (errno != 0 || end == s || *end != ':' || start < 0) return f;
    const char* p = end + 1;
    long count = std::strtol(p, &end, 10);
    if (errno != 0 || end == p || *end != '\0' || count < -1) return f;
    f.start = start;
    f.count = count;
    return f;
}

uint64_t parse_size(const char* s) {
    if (s == nullptr || *s == '\0') return kDefaultSize;
    char* end = nullptr;
    errno = 0;
    unsigned long long v = std::strtoull(s, &end, 0);
    if (errno != 0 || *end != '\0' || v == 0 || s[0] == '-') return kDefaultSize;
    return v;
}

void close_image_locked() {
    if (g_fd >= 0) ::close(g_fd);
    g_fd = -1;
    g_size = 0;
}

void read_env_locked() {
    const char* img = std::getenv("SANFWCTL_NV_IMAGE");
    g_image = (img != nullptr && *img != '\0') ? img : kDefaultImage;
    g_create_size = parse_size(std::getenv("SANFWCTL_NV_SIZE"));
    for (int k = 0; k < kKinds; ++k) g_fault[k] = parse_fault(std::getenv(kFaultVar[k]));
    g_env_read = true;
}

void ensure_env_locked() {
    if (!g_env_read) read_env_locked();
}

// A forked child must not use the parent's descriptor: flock belongs to the
// open file description, so parent and child would not exclude each other.
void atfork_prepare() { g_mu.lock(); }
void atfork_parent() { g_mu.unlock(); }
void atfork_child() {
    close_image_locked();
    g_mu.unlock();
}

struct AtforkRegistrar {
    AtforkRegistrar() { ::pthread_atfork(atfork_prepare, atfork_parent, atfork_child); }
} g_atfork_registrar;

int open_image_locked() {
    if (g_fd >= 0) return 0;
    int fd = ::open(g_image.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) return -errno;
    // Exclusive while sizing, so two processes creating the image at once
    // agree on its size.
    if (::flock(fd, LOCK_EX) != 0) {
        int e = errno;
        ::close(fd);
        return -e;
    }
    struct stat st;
    int rc = 0;
    if (::fstat(fd, &st) != 0) {
        rc = -errno;
    } else if (st.st_size == 0) {
        if (::ftruncate(fd, static_cast<off_t>(g_create_size)) != 0)
            rc = -errno;
        else
            g_size = g_create_size;
    } else {
        g_size = static_cast<uint64_t>(st.st_size);
    }
    ::flock(fd, LOCK_UN);
    if (rc != 0) {
        ::close(fd);
        g_size = 0;
        return rc;
    }
    g_fd = fd;
    return 0;
}

// Counts the call and tells whether it is one of the injected failures.
bool count_and_check_fault_locked(int kind) {
    long n = ++g_calls[kind];
    const Fault& f = g_fault[kind];
    if (f.count == 0 || n <= f.start) return false;
    return f.count == -1 || n - f.start <= f.count;
}

bool valid_request(const cpfw_nv_region_t* region, const cpfw_ioctl_nv_access* req, int count) {
    if (region == nullptr || req == nullptr || count != 1) return false;
    if (*region != kRegion) return false;
    if (req->len != 0 && req->buf == 0) return false;
    return true;
}

// The transfer itself, with g_mu held.
int move_locked(bool writing, uint64_t off, char* p, uint64_t len) {
    ensure_env_locked();
    if (g_image.rfind("mem:", 0) == 0) {
        if (g_mem_name != g_image) g_mem_name = g_image, g_mem.assign(g_create_size, 0);
        if (len > g_mem.size() || off > g_mem.size() - len) return -ERANGE;
        if (len > 0) writing ? std::memcpy(&g_mem[off], p, len) : std::memcpy(p, &g_mem[off], len);
        return 0;
    }
    int rc = open_image_locked();
    if (rc != 0) return rc;
    if (len > g_size || off > g_size - len) return -ERANGE;
    if (len == 0) return 0;
    if (::flock(g_fd, writing ? LOCK_EX : LOCK_SH) != 0) return -errno;
    uint64_t done = 0;
    while (done < len) {
        ssize_t n = writing ? ::pwrite(g_fd, p + done, len - done, static_cast<off_t>(off + done))
                            : ::pread(g_fd, p + done, len - done, static_cast<off_t>(off + done));
        if (n < 0) {
            if (errno == EINTR) continue;
            rc = -errno;
            break;
        }
        if (n == 0) {
            rc = -EIO;  // image shrunk under us
            break;
        }
        done += static_cast<uint64_t>(n);
    }
    ::flock(g_fd, LOCK_UN);
    return rc;
}

int transfer(int kind, cpfw_nv_region_t* region, cpfw_ioctl_nv_access* req, int count) {
    std::lock_guard<std::mutex> lk(g_mu);
    ensure_env_locked();
    if (count_and_check_fault_locked(kind)) return kFault;
    if (!valid_request(region, req, count)) return -EINVAL;
    return move_locked(kind == SANFWCTL_FAULT_WRITE, req->nv_offset,
                       reinterpret_cast<char*>(static_cast<uintptr_t>(req->buf)), req->len);
}

int parse_master(const char* s) {
    if (s == nullptr || *s == '\0') return 0;
    char* end = nullptr;
    errno = 0;
    long v = std::strtol(s, &end, 10);
    if (errno != 0 || *end != '\0' || v < 0 || v > 255) return 0;
    return static_cast<int>(v);
}

}  // namespace

extern "C" {

int Ezosanfwctl_read_nv(int /*handle*/, cpfw_nv_region_t* region, cpfw_ioctl_nv_access* req,
                        int count) {
    int saved = errno;
    int rc = transfer(SANFWCTL_FAULT_READ, region, req, count);
    errno = saved;
    return rc;
}

int Ezosanfwctl_write_nv(int /*handle*/, cpfw_nv_region_t* region, cpfw_ioctl_nv_access* req,
                         int count) {
    int saved = errno;
    int rc = transfer(SANFWCTL_FAULT_WRITE, region, req, count);
    errno = saved;
    return rc;
}

int Ezosanfwctl_get_status(int /*handle*/, sanfw_getstatus_out_t* out) {
    {
        std::lock_guard<std::mutex> lk(g_mu);
        ensure_env_locked();
        if (count_and_check_fault_locked(SANFWCTL_FAULT_STATUS)) return kFault;
    }
    if (out == nullptr) return -EINVAL;
    int saved = errno;
    std::memset(out, 0, sizeof *out);
    out->master_cont = static_cast<uint8_t>(parse_master(std::getenv("SANFWCTL_MASTER")));
    errno = saved;
    return 0;
}

void sanfwctl_set_fault(int kind, long start, long count) {
    if (kind < 0 || kind >= kKinds) return;
    std::lock_guard<std::mutex> lk(g_mu);
    ensure_env_locked();
    g_fault[kind].start = start < 0 ? 0 : start;
    g_fault[kind].count = count < -1 ? -1 : count;
}

long sanfwctl_call_count(int kind) {
    if (kind < 0 || kind >= kKinds) return 0;
    std::lock_guard<std::mutex> lk(g_mu);
    return g_calls[kind];
}

int sanfwctl_test_access(unsigned long long off, void* buf, unsigned long long len, int writing) {
    std::lock_guard<std::mutex> lk(g_mu);
    return move_locked(writing != 0, off, static_cast<char*>(buf), len);
}

const char* sanfwctl_nv_image(void) {
    std::lock_guard<std::mutex> lk(g_mu);
    ensure_env_locked();
    return g_image.c_str();
}

void sanfwctl_reset(void) {
    std::lock_guard<std::mutex> lk(g_mu);
    close_image_locked();
    for (long& c : g_calls) c = 0;
    read_env_locked();
}

}  // extern "C"
