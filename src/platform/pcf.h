/* SPDX-License-Identifier: MIT */
#ifndef KAV_PLATFORM_PCF_H
#define KAV_PLATFORM_PCF_H

/*
 * The controller's flash file store, as the board supplies it: a flat set of files, one of which may be open for
 * reading and one for writing at a time; there are no handles. Boards implement these functions; on a POSIX host the
 * library brings an implementation over a directory (platform/pcf_host.h).
 *
 * Names are 1 to 39 bytes. The last arguments of open, read, write and close are the board's own and ignored here:
 * callers pass 0 for reading and -1 for writing.
 */

#if defined(__GNUC__)
#define KAV_PCF_API __attribute__((visibility("default")))
#else
#define KAV_PCF_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

enum { PCF_NAME_SIZE = 40 }; /* [bytes] with the zero */

/* Other values than these are failures too. */
typedef enum PcfResult {
    PCF_DONE = 0,
    PCF_BUSY = 1, /* the slot is taken: try again */
    PCF_FAILED = 2,
    PCF_NO_FILE = 3,
    PCF_NOTHING = 4 /* nothing was done */
} PcfResult;

struct PcfInfo {
    unsigned int size;       /* [bytes] of the store */
    unsigned int free_bytes; /* [bytes] */
};

/* Whether the store can be used: non-zero when it can. */
KAV_PCF_API int pcfIsMounted(void);
/* Non-zero when the file exists. */
KAV_PCF_API int pcfExists(const char* path);

/* Open for reading from `offset` [bytes] on. */
KAV_PCF_API PcfResult pcfOpenRead(const char* path, unsigned int offset, int reserved);
/* Read up to `n` bytes: the count, 0 at the end of the file; `result` tells whether that is to be believed. */
KAV_PCF_API int pcfRead(void* dest, int n, PcfResult* result, int reserved);
KAV_PCF_API PcfResult pcfCloseRead(int reserved);

/* Open a new file, or an existing one at its end, for writing. */
KAV_PCF_API PcfResult pcfCreateWrite(const char* path, int reserved);
KAV_PCF_API PcfResult pcfOpenWrite(const char* path, int reserved);
/* Write `n` bytes: the count written, less on a failure. */
KAV_PCF_API int pcfWrite(const void* data, int n, int reserved);
/* Make what was written permanent: NON-ZERO when that succeeded. */
KAV_PCF_API int pcfCloseWrite(int reserved);

KAV_PCF_API PcfResult pcfRemove(const char* path);
/* Non-zero when `info` was filled. */
KAV_PCF_API int pcfInfo(struct PcfInfo* info);

KAV_PCF_API unsigned int pcfGetNumFiles(void);
/*
 * The name of a file by index, sorted, as the files were when index 0 was last asked for, or counted: removing one
 * moves no other. Non-zero when it is there. `name` has room for 256 bytes.
 */
KAV_PCF_API int pcfGetFileName(unsigned int index, char* name);

#ifdef __cplusplus
}
#endif

#endif
