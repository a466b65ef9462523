// Marks the symbols that libvexavirtualization.so exports; all others are hidden.
#pragma once

#define VEXA_EXPORT __attribute__((visibility("default")))
