#pragma once

/// Marks a name that the shared object exports; everything else is hidden.
#define OVRA_API __attribute__((visibility("default")))

/// Hides a member of an exported class that only the library itself calls.
#define OVRA_LOCAL __attribute__((visibility("hidden")))

/// Lets the compiler check a printf-style call: `formatIndex` is the 1-based position of the
/// format, `firstArgument` that of the first argument it formats.
#define OVRA_PRINTF(formatIndex, firstArgument) \
    __attribute__((format(printf, formatIndex, firstArgument)))

/// Expands its argument and makes a string literal of the result.
#define OVRA_TEXT_OF(...) #__VA_ARGS__

/// Stops the compilation where a macro would take the place of one of the library's names, and says
/// which. A macro with parameters does no harm: it is expanded only before a parenthesis, and none
/// follows these names.
#define OVRA_NOT_A_MACRO(name)                                                           \
    static_assert(__builtin_strcmp(#name, OVRA_TEXT_OF(name)) == 0,                      \
                  "the macro " #name " takes the place of a name of ovra: #undef " #name \
                  " before the first #include of ovra, or compile without -D" #name)
