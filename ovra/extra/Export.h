#pragma once

/// Marks a name that the shared object `ovra-extra` exports; everything else is hidden.
#define OVRA_EXTRA_API __attribute__((visibility("default")))
