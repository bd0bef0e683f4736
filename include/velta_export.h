// SPDX-License-Identifier: MIT
#ifndef VELTA_EXPORT_H_
#define VELTA_EXPORT_H_

/// Marks what libvelta.so exports; everything else stays inside the library.
#define VELTA_API __attribute__((visibility("default")))

#endif  // VELTA_EXPORT_H_
