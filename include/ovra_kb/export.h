/* Marks the functions that libovra_kb.so exports; everything else in it is hidden. */
#ifndef OVRA_KB_EXPORT_H
#define OVRA_KB_EXPORT_H

#if defined(__GNUC__)
#define OVRA_KB_EXPORT __attribute__((visibility("default")))
#else
#define OVRA_KB_EXPORT
#endif

#endif /* OVRA_KB_EXPORT_H */
