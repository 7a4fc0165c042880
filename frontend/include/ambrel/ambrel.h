/* libambrel: virtual MIDI ports for applications.
 *
 * An application opens a port by name and becomes a MIDI device that every
 * MIDI program on the machine can play to and record from:
 *   - ambrel_read() returns the MIDI that programs play to the port (whole
 *     messages, raw bytes, oldest first);
 *   - ambrel_write() sends MIDI to every program recording from the port;
 *   - ambrel_process_ids() tells which processes have the port's device open;
 *   - ambrel_close() withdraws the port.
 *
 * Linux: the port is a file below ambreld's mount (see ambrel/mount.h).
 * Windows: the port is a handle on the driver's control device "\\.\Ambrel".
 *
 * Every function returning int or long gives a negative AMBREL_E_* code on
 * failure. The functions are thread-safe for distinct ports; one port may be
 * written from several threads at once, but only one thread may read it at a
 * time (the driver keeps one waiting read per port). */
#ifndef AMBREL_AMBREL_H
#define AMBREL_AMBREL_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

enum ambrel_error {
    AMBREL_OK = 0,
    AMBREL_E_INVALID = -1,     /* bad argument, or a name the driver refuses */
    AMBREL_E_EXISTS = -2,      /* a port of that name exists */
    AMBREL_E_FULL = -3,        /* every port slot of the driver is taken */
    AMBREL_E_NOMEM = -4,       /* the driver ran out of memory */
    AMBREL_E_NODRIVER = -5,    /* no ambreld mount (Linux) or no driver (Windows) */
    AMBREL_E_TIMEOUT = -6,     /* nothing arrived in time */
    AMBREL_E_BUSY = -7,        /* another read is already waiting on this port */
    AMBREL_E_TOOBIG = -8,      /* a write of more than AMBREL_MAX_WRITE bytes */
    AMBREL_E_CLOSED = -9,      /* the port was withdrawn under the handle */
    AMBREL_E_DIRECTION = -10,  /* read on a write-only port, or write on a read-only one */
    AMBREL_E_INTERRUPTED = -11,/* a signal interrupted the call */
    AMBREL_E_IO = -12          /* anything else: ambrel_last_os_error() has the system's code */
};

/* Directions, chosen at open from the application's point of view. */
#define AMBREL_READ 1u  /* receive what MIDI programs play to the port */
#define AMBREL_WRITE 2u /* send MIDI that MIDI programs record from the port */

#define AMBREL_MAX_WRITE 524288u       /* bytes per ambrel_write() */
#define AMBREL_MAX_PROCESS_IDS 16u     /* the driver records 16 pins per port */
#define AMBREL_MIN_SYSEX_SIZE 8176u    /* the driver clamps sysex_size to these */
#define AMBREL_MAX_SYSEX_SIZE 1048560u
#define AMBREL_MAX_NAME 254u           /* UTF-16 code units of a port name */

/* A GUID in the Windows layout. */
typedef struct ambrel_guid {
    uint32_t data1;
    uint16_t data2;
    uint16_t data3;
    uint8_t data4[8];
} ambrel_guid;

typedef struct ambrel_options {
    unsigned access;                  /* AMBREL_READ, AMBREL_WRITE or both; 0 means both */
    uint32_t sysex_size;              /* largest SysEx the port carries; 0: the driver's default */
    const ambrel_guid *manufacturer;  /* reported to MIDI programs; NULL: the driver's default */
    const ambrel_guid *product;       /* likewise */
    const char *root;                 /* Linux: the mount; NULL: $AMBREL_MOUNT, else AMBREL_DEFAULT_MOUNT. Ignored on Windows. */
} ambrel_options;

typedef struct ambrel_port ambrel_port;

/* Creates the port `name` (UTF-8; at most AMBREL_MAX_NAME UTF-16 units once
 * the driver has removed the characters \ / < > " : | ? *, a name with a
 * backslash is refused here). `options` may be NULL. */
int ambrel_open(const char *name, const ambrel_options *options, ambrel_port **port);

/* Waits up to timeout_ms (negative: forever, 0: only what is there) for MIDI
 * played to the port; returns the number of bytes read (at least 1), or an
 * error. A buffer shorter than the waiting data takes its first bytes, the
 * rest stays for the next read. */
long ambrel_read(ambrel_port *port, void *buffer, size_t length, int timeout_ms);

/* Sends 1 to AMBREL_MAX_WRITE bytes as one block to every program recording
 * from the port (dropped when none records). Returns `length` or an error. */
long ambrel_write(ambrel_port *port, const void *data, size_t length);

/* Fills `ids` with up to `capacity` distinct ids of the processes that have
 * the port's device open, and *count with the number found. */
int ambrel_process_ids(ambrel_port *port, uint64_t *ids, size_t capacity, size_t *count);

/* Withdraws the port and frees `port` (NULL is ignored). */
int ambrel_close(ambrel_port *port);

/* The operating system's handle of the port: a file descriptor on Linux (for
 * poll), a HANDLE on Windows. */
intptr_t ambrel_native_handle(const ambrel_port *port);

const char *ambrel_strerror(int error);
/* errno (Linux) or GetLastError() (Windows) behind the calling thread's last
 * failure. */
int ambrel_last_os_error(void);

/* "{01234567-89AB-CDEF-0123-456789ABCDEF}" (braces optional, either case).
 * Returns AMBREL_OK or AMBREL_E_INVALID. */
int ambrel_parse_guid(const char *text, ambrel_guid *guid);
/* Braced, upper case, 39 bytes with the terminator. */
void ambrel_format_guid(const ambrel_guid *guid, char text[39]);

/* The file name below the control device that ambrel_open uses (UTF-8, no
 * leading backslash): "Name\size\{manufacturer}\{product}" with empty fields
 * where nothing is asked for. Returns its length, or an error when it does
 * not fit `capacity` (terminator included) or the arguments are bad. */
long ambrel_file_name(const char *name, const ambrel_options *options, char *out, size_t capacity);

#ifdef __cplusplus
}
#endif

#endif
