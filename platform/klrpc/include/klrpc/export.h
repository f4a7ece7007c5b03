// KLRPC_EXPORT marks the interface of libklrpc.so; everything else stays hidden inside the library.
#ifndef KLRPC_EXPORT_H_
#define KLRPC_EXPORT_H_

#define KLRPC_EXPORT __attribute__((visibility("default")))

#endif  // KLRPC_EXPORT_H_
