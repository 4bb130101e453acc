#pragma once

#include <ovra/extra/Export.h>
#include <ovra/extra/Outcome.h>
