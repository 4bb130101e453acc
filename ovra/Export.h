#pragma once

/// Marks a name that the shared object exports; everything else is hidden.
#define OVRA_API __attribute__((visibility("default")))

/// Hides a member of an exported class that only the library itself calls.
#define OVRA_LOCAL __attribute__((visibility("hidden")))

/// Lets the compiler check a printf-style call: `formatIndex` is the 1-based position of the
/// format, `firstArgument` that of the first argument it formats.
#define OVRA_PRINTF(formatIndex, firstArgument) \
    __attribute__((format(printf, formatIndex, firstArgument)))
