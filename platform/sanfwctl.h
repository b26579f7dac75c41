/*
 * Firmware-control interface (stand-in for the controller's libsanfwctl.so.1):
 * NV memory access and controller status.
 *
 * NV memory is an image file named by SANFWCTL_NV_IMAGE (default
 * /var/tmp/sanfwctl-nv.img), created zero-filled on first use with
 * SANFWCTL_NV_SIZE bytes (default 1 MiB).  Every request is atomic against
 * other threads and processes on the same image.  Only region 2 and a request
 * count of 1 are served.  Ezosanfwctl_get_status reports master_cont from
 * SANFWCTL_MASTER (default 0).  An image named "mem:..." lives in this
 * process's memory instead: zero-filled when its name is first used, it
 * outlives sanfwctl_reset as NV memory outlives a restart.
 *
 * Fault injection: SANFWCTL_FAIL_READ, SANFWCTL_FAIL_WRITE and
 * SANFWCTL_FAIL_STATUS, each "S:N": counting this process's calls of that kind
 * from 1, calls S+1 .. S+N fail (N = -1: every call after the first S).
 */
#ifndef SANFWCTL_H
#define SANFWCTL_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef uint32_t cpfw_nv_region_t;

typedef struct cpfw_ioctl_nv_access {
    uint64_t buf;       /* address of the caller's buffer */
    uint64_t nv_offset; /* absolute NV byte offset */
    uint64_t len;       /* bytes to transfer */
} cpfw_ioctl_nv_access;

typedef struct sanfw_getstatus_out {
    uint8_t mode;
    uint8_t cont_model;
    uint8_t num_cont;
    uint8_t master_cont; /* number of the master controller */
    uint8_t rfu[36];
} sanfw_getstatus_out_t;

int Ezosanfwctl_read_nv(int handle, cpfw_nv_region_t *region, cpfw_ioctl_nv_access *req, int count);
int Ezosanfwctl_write_nv(int handle, cpfw_nv_region_t *region, cpfw_ioctl_nv_access *req, int count);
int Ezosanfwctl_get_status(int handle, sanfw_getstatus_out_t *out);

/* The NV image this process uses (SANFWCTL_NV_IMAGE or the default): what
 * tools name when they check who else holds NV open.  Valid until the next
 * sanfwctl_reset. */
const char* sanfwctl_nv_image(void);

/* Stand-in only, for tests. */
enum { SANFWCTL_FAULT_READ = 0, SANFWCTL_FAULT_WRITE = 1, SANFWCTL_FAULT_STATUS = 2 };
/* Same meaning as the S:N environment variables; count 0 switches it off. */
void sanfwctl_set_fault(int kind, long start, long count);
/* Calls of that kind made by this process so far (failed ones included). */
long sanfwctl_call_count(int kind);
/* Forget the open image, the counters and the faults and read the environment again. */
void sanfwctl_reset(void);
/* Reads (writing 0) or writes len bytes of the image at off, bypassing faults
 * and counters: for tests that plant or inspect NV bytes.  0 or -errno. */
int sanfwctl_test_access(unsigned long long off, void *buf, unsigned long long len, int writing);

#ifdef __cplusplus
}
#endif

#endif /* SANFWCTL_H */
