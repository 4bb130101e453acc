#pragma once

#include <ovra/extra/Export.h>
#include <ovra/extra/LockFile.h>
#include <ovra/extra/LogEvery.h>
#include <ovra/extra/MakeTask.h>
#include <ovra/extra/MonitoredExecutor.h>
#include <ovra/extra/Outcome.h>
#include <ovra/extra/RecentLinesLogHandler.h>
#include <ovra/extra/RemoveTree.h>
#include <ovra/extra/ReplaceFile.h>
#include <ovra/extra/RotatingFileLogHandler.h>
#include <ovra/extra/ScheduledTasks.h>
#include <ovra/extra/Space.h>
#include <ovra/extra/SubmitAsync.h>
#include <ovra/extra/SwitchLogHandler.h>
#include <ovra/extra/TaskGroup.h>
