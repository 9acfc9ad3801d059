// Utilities: text, hexadecimal dumps, numbers, shell commands, files, random keys, MAC addresses, time.
//
// White space is the six bytes blank, \t, \n, \v, \f and \r, whatever the locale.
//
// Threads: no function keeps state; all may run on many threads at once, as long as two threads do not
// change the same buffer.
#ifndef QUILLCORE_UTILITY_H
#define QUILLCORE_UTILITY_H

#include <quillcore/api.h>
#include <stdint.h>

QN_BEGIN_DECLS

// Finds the first byte of `text` that is not white space; the text is not changed.
// Returns a pointer into `text`, to its terminator if there is no such byte; null for null.
QN_API char* qn_utils_ltrim(char* text);

// Overwrites the white space at the end of `text` with NUL bytes. Returns `text`; null for null.
QN_API char* qn_utils_rtrim(char* text);

// qn_utils_ltrim(), then qn_utils_rtrim() on its result. No byte is moved: the result points into
// `text`, so the caller keeps its own pointer to a heap block. Null for null.
QN_API char* qn_utils_trim(char* text);

// Logs `length` bytes as lines of hexadecimal elements, level D: a start line (607), nine elements on
// the first line and eight on later ones (608), the rest (609), an end line (610). With `capped` not 0
// at most 32 bytes are shown. Null bytes count as length 0.
QN_API void qn_utils_dump_hex(const void* bytes, uint32_t length, int32_t capped);

// Reads a whole text as a number in `base` (2 to 36, or 0 to detect a 0x or 0 prefix), as strtol() does,
// with a limit of 32 bits on every target: a value beyond it gives INT32_MAX or INT32_MIN.
// Returns 0 for a text with a tail, an empty or null text and an invalid base: that cannot be told from
// the text of a real 0, so a caller for whom the two differ looks at the text first. White space in front
// of the number is passed over, behind it is a tail.
QN_API int32_t qn_str2num(const char* text, int32_t base);

// Runs a command line through /bin/sh and waits for it, without a time limit. The child inherits the
// environment, blocked and ignored signals, and every descriptor that is not close-on-exec. SIGPIPE is an
// ignored signal in every daemon, and `trap - PIPE` does not undo that: in a pipeline the front part is
// not ended when the part behind it has enough, it gets a write error instead, and goes on for ever if it
// does not look at it. Returns 0 when the shell ended by itself, whatever its exit status, also that of a
// command that does not exist and where there is no shell; -1 when it was killed, could not be forked or
// waited for, or `cmd` is null.
QN_API int32_t qn_os_exec_cmd(const char* cmd);

// qn_os_exec_cmd() of a formatted command line of at most 511 bytes.
// Returns -1 without running anything when the text does not fit (logged, 613) and for a null `fmt`. What
// a null argument for %s becomes is the C library's choice: "(null)", which the shell would take for a
// command.
QN_API int32_t qn_os_exec_vcmd(const char* fmt, ...) QN_PRINTF(1, 2);

// Runs a command line through the shell and collects what it prints, line ends included, up to size - 1
// bytes and a terminator. Of a line that holds NUL bytes what stands before the first is taken, and the
// next line follows there. Further output is not read, and a command that prints nothing leaves `output`
// as it was. Signals do not cut it short. Returns 0, whatever the command's exit status; -1 when it could
// not be started (logged, 4140), `cmd` or `output` is null or `size` is not above 0.
QN_API int32_t qn_os_exec_cmd_and_read_output(const char* cmd, char* output, int32_t size);

// Reads the second field of each line of the file at `path` that matches the awk expression `key`;
// `separator` is awk's -F. The values of several lines come joined; the value is not trimmed. The three
// texts go to the shell as they are and must hold nothing that shell or awk would read differently; all
// of the command line has at most 511 bytes. A % in a value is read as a format by awk. Returns 0 when at
// least one byte was read, and with a `size` of 1, which leaves room for none; else -1 (logged, 4141 to
// 4143); -1 too for a null argument or a `size` not above 0.
QN_API int32_t qn_os_read_value_by_key_from_file(const char* path, const char* key, const char* separator,
                                                 char* value, int32_t size);

// Makes the run-time directories /tmp/quillnet/log/ and /tmp/quillnet/ where they are missing.
// Returns as qn_os_exec_cmd(), which does not tell whether they could be made.
QN_API int32_t qn_init_dir(void);

// Returns 1 when `path`, a file of any kind, exists behind its symbolic links; else 0, also for null.
QN_API int32_t qn_file_is_exist(const char* path);

// Returns 1 when the file's modification time is later than `mtime`, in whole seconds since the epoch;
// else 0, also for null and when the file cannot be asked.
QN_API int32_t qn_file_is_modified(const char* path, int64_t mtime);

// Returns the file's modification time in whole seconds since the epoch; 0 for null and when the file
// cannot be asked.
QN_API int64_t qn_file_get_last_mtime(const char* path);

// Opens /dev/random. Returns a descriptor that the caller gives to qn_random_close(), or -1.
QN_API int32_t qn_random_open(void);

// Closes a descriptor above 0; others are ignored.
QN_API void qn_random_close(int32_t fd);

// Returns the number that the next four bytes of `fd` make; bytes that do not come are 0.
QN_API uint32_t qn_random_get_num(int32_t fd);

// Fills `key`, a buffer of length + 1 bytes, with `length` random characters out of a-z, A-Z and 0-9 and
// a terminator. When the random device cannot be opened or read all bytes are zero: an empty text, never
// a key that can be guessed. A read can wait where the kernel has little entropy.
QN_API void qn_generate_random_key(char* key, uint32_t length);

// Reads a MAC address of exactly the form 02:1a:2B:3c:4D:5e, digits in either case, into six bytes.
// Returns 0; -1 for a null argument and any other text, and then the bytes read before the fault are set.
QN_API int32_t qn_utils_char_to_mac(const char* text, uint8_t* mac);

// Reads the hardware address of an interface into six bytes. A name is cut to 15 bytes.
// Returns 0; -1 for a null argument and when the kernel does not tell; `mac` stays as it was then.
QN_API int32_t qn_utils_get_intf_mac_addr(const char* intf_name, uint8_t* mac);

// Returns milliseconds of the monotonic clock: for differences, not for dates. 0 if it cannot be read.
QN_API int64_t qn_time_timestamp(void);

// Translate an authentication code of the cm or the wlan numbering into bits of the Authentication Type
// attribute of Wi-Fi Simple Configuration: 0x01 Open, 0x02 WPA-Personal, 0x04 Shared, 0x08
// WPA-Enterprise, 0x10 WPA2-Enterprise, 0x20 WPA2-Personal, and 0x40. A code outside the numbering gives
// 0x20.
QN_API uint32_t qn_trans_cm_auth_mode_to_qn(uint32_t auth_mode);
QN_API uint32_t qn_trans_wlan_auth_to_qn(uint32_t auth);

QN_END_DECLS

#endif // QUILLCORE_UTILITY_H
