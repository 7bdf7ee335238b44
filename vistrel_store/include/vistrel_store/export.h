#ifndef VISTREL_STORE_EXPORT_H_
#define VISTREL_STORE_EXPORT_H_

// Marks the library's exported interface; everything else is hidden.
#if defined(VISTREL_STORE_BUILDING)
#define VISTREL_STORE_EXPORT __attribute__((visibility("default")))
#else
#define VISTREL_STORE_EXPORT
#endif

#endif  // VISTREL_STORE_EXPORT_H_
