// The fault injector's controls, for a test process that runs with the injector preloaded
// (LD_PRELOAD). Look them up with dlsym(RTLD_DEFAULT, ...): without the injector they are
// absent and the test has nothing to inject with.
#ifndef TESTS_FAULT_SHIM_FAULT_SHIM_H_
#define TESTS_FAULT_SHIM_FAULT_SHIM_H_

#include <stddef.h>

extern "C" {

// From now on, the `nth` (1 = the next) call of `op` made by the calling thread fails with
// `error`. `op` is "open" (open, openat and their 64-bit names), "write", "fsync" (fsync,
// fdatasync) or "rename" (rename, renameat, renameat2). Other threads are never touched.
void vistrel_fault_arm(const char* op, int nth, int error);
void vistrel_fault_disarm(void);
// 1 when the armed call failed since arming; *what gets its path (or "fd N").
int vistrel_fault_fired(char* what, size_t size);

}  // extern "C"

#endif  // TESTS_FAULT_SHIM_FAULT_SHIM_H_
