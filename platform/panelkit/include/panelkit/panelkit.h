// The device UI/runtime library: configuration files, bitmaps, messages, tasks, network,
// the device log and a few text helpers. Plain C functions, as on the device.
//
// No C++ exception leaves any of these functions: a failure inside (memory exhausted
// included) gives the function's documented failure value.
//
// Paths passed to these functions are device paths ("/mnt/ext1/..."); on a host they are
// resolved under the emulated device root (see nbutils/device_path.h).
#ifndef PANELKIT_PANELKIT_H_
#define PANELKIT_PANELKIT_H_

#include <stddef.h>

extern "C" {

// ---- Log -----------------------------------------------------------------------------------

// Writes one event of the device log. `format` is printf-style. On a host the event goes to
// the file named by VISTREL_LOG_FILE as "<level>\t<file>\t<line>\t<function>\t<text>";
// without that variable, level-2 events go to stderr and the others are dropped.
void nb_print_log2(int level, const char* file, int line, const char* function, const char* format,
                   ...) __attribute__((format(printf, 5, 6)));

// ---- Configuration files -------------------------------------------------------------------

struct iconfig_s;
typedef struct iconfig_s iconfig;
struct iconfigedit_s;
typedef struct iconfigedit_s iconfigedit;

// Opens a configuration file of "key=value" lines. A missing file is created empty when its
// folder exists. Returns null when the file cannot be read or created.
iconfig* OpenConfig(const char* path, iconfigedit* edit);
// Writes the file if anything changed: atomically (temporary file, fsync, rename), mode 0600.
// Returns 1 on success (or nothing to write), 0 on failure.
int SaveConfig(iconfig* config);
// Saves if anything changed, then frees the handle.
void CloseConfig(iconfig* config);
// Frees the handle without saving.
void CloseConfigNoSave(iconfig* config);

// The returned text is owned by the handle and valid until the next write of that key or the
// close; `deflt` is returned as is when the key is absent.
const char* ReadString(iconfig* config, const char* name, const char* deflt);
int ReadInt(iconfig* config, const char* name, int deflt);
// Secrets are kept obfuscated in the file, never as plain text.
const char* ReadSecret(iconfig* config, const char* name, const char* deflt);
void WriteString(iconfig* config, const char* name, const char* value);
void WriteInt(iconfig* config, const char* name, int value);
void WriteSecret(iconfig* config, const char* name, const char* value);

// ---- Device identity -------------------------------------------------------------------------

// The device's serial number, or null when it has none. Host: VISTREL_SERIAL_NUMBER.
const char* GetSerialNumber(void);

// ---- Bitmaps ---------------------------------------------------------------------------------

// A device bitmap: one allocation (header and pixels), released with free(). `data` points
// just behind the header, rows of `scanline` bytes, top row first, `depth` bits per pixel
// (8: grey, 24: BGR, 32: BGRA).
typedef struct ibitmap_s {
  unsigned short width;
  unsigned short height;
  unsigned short depth;
  unsigned short scanline;
  unsigned char* data;
} ibitmap;

// Reads a BMP file (uncompressed, 8/24/32 bits); null when missing, truncated or absurd, not a
// regular file, larger than 16 MiB or wider or higher than 4096 pixels.
ibitmap* LoadBitmap(const char* path);
// Writes a BMP file. Returns 1 on success, 0 on failure.
int SaveBitmap(const char* path, const ibitmap* bitmap);
// A named bitmap of the device's resources, or a copy of `fallback` (null without one).
// Host: "/kelmast/system/resources/<name>.bmp" under the device root.
ibitmap* GetResource(const char* name, const ibitmap* fallback);
// Installs the picture that the device shows while powered off. A picture wider or higher than
// 4096 pixels, or whose file would exceed 16 MiB, is not installed; failures are silent.
void WritePartnerPowerOffLogo(const ibitmap* bitmap);

// ---- Network ---------------------------------------------------------------------------------

// Bits 0xf00 are set while a network connection is up.
#define NET_CONNECTED 0x100
int QueryNetwork(void);
// Brings up the named connection (null: the default one). Returns 0 on success.
int NetConnect(const char* name);

// ---- Messages, tasks and files ---------------------------------------------------------------

#define ICON_INFORMATION 1
#define ICON_QUESTION 2
#define ICON_WARNING 3
#define ICON_ERROR 4
// Shows a message box for `timeout_ms`. Texts beginning with "@" are translated by the UI.
void Message(int icon, const char* title, const char* text, int timeout_ms);

// The task of the running application at `path`, or -1 when it does not run.
int FindTaskByAppName(const char* path);
// Sends a request with `data` of `size` bytes to a task. Returns 0 on success.
int SendRequestTo(int task, int request, void* data, int size, int flags, int timeout_ms);

// One readable file type of the device; a table of them ends with a null extension.
typedef struct ifiletype_s {
  const char* extension;
  const char* description;
} ifiletype;
const ifiletype* GetSupportedFileTypes(void);

// Removes a file. Returns 0 on success, -1 on failure.
int pk_unlink(const char* path);

// The upper-case form of a UTF-8 text (full Unicode case mapping), allocated with malloc;
// the caller frees it. Null on failure.
char* utf_toupper_ext(const char* text);

}  // extern "C"

#endif  // PANELKIT_PANELKIT_H_
