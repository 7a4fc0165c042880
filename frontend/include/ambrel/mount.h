/* The layout of ambreld's mount, shared by the daemon, libambrel and the
 * `ambrel` command.
 *
 *   <mount>/<file name>      opening any name not listed below creates a port:
 *                            the name is the file name below the control device
 *                            ("Piano", "Piano\65536\{...}\{...}": backslashes
 *                            are part of the one component); O_RDONLY, O_WRONLY
 *                            or O_RDWR choose the direction.
 *   <mount>/ports/<Name>/    one directory per published port:
 *       out                  write: play MIDI into the port (render side)
 *       in                   read: record what the port's owner writes (capture side)
 *       info                 what MIDI programs see of the port (text)
 *
 * A port whose name cannot be a directory name ("." and "..", or longer than
 * 255 bytes in UTF-8) is listed under its reference string with a leading
 * '#' ("#ambrel3"). */
#ifndef AMBREL_MOUNT_H
#define AMBREL_MOUNT_H

#include <stdint.h>
#include <sys/ioctl.h>

#define AMBREL_DEFAULT_MOUNT "/run/ambrel"
#define AMBREL_MOUNT_ENV "AMBREL_MOUNT"
#define AMBREL_PORTS_DIR "ports"
#define AMBREL_OUT_FILE "out"
#define AMBREL_IN_FILE "in"
#define AMBREL_INFO_FILE "info"

/* The process-id query on a port's file (the driver's device control
 * 0x80012004): distinct ids of the processes with a pin open, slot order. */
struct ambrel_process_ids {
    uint64_t count;
    uint64_t ids[16];
};
#define AMBREL_IOC_PROCESS_IDS _IOR('a', 0x04, struct ambrel_process_ids)

/* The name the port got, UTF-8 and terminated, asked on the owner's file:
 * the driver leaves out the characters \ / < > " : | ? * of the name it
 * is opened with. */
struct ambrel_port_name {
    char name[1024];
};
#define AMBREL_IOC_PORT_NAME _IOR('a', 0x05, struct ambrel_port_name)

#endif
