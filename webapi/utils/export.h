// Marks what libvexavirtualization.so exports; everything else in it is hidden.
#pragma once

#define VEXA_EXPORT __attribute__((visibility("default")))
