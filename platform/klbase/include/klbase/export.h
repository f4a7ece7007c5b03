// KLBASE_EXPORT marks the interface of libklbase.so; everything else stays hidden inside the library.
#ifndef KLBASE_EXPORT_H_
#define KLBASE_EXPORT_H_

#define KLBASE_EXPORT __attribute__((visibility("default")))

#endif  // KLBASE_EXPORT_H_
