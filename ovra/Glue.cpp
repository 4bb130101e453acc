#include <ovra/ovra.h>

void ovra_xcode_target_object_glue() {}
