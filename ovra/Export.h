#pragma once

/// Marks a name that the shared object exports; everything else is hidden.
#define OVRA_API __attribute__((visibility("default")))

/// Lets the compiler check a printf-style call: `formatIndex` is the 1-based position of the
/// format, `firstArgument` that of the first argument it formats.
#define OVRA_PRINTF(formatIndex, firstArgument) \
    __attribute__((format(printf, formatIndex, firstArgument)))
