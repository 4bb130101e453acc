#pragma once

#include <ovra/Export.h>
#include <ovra/Version.h>
#include <ovra/concurrent/Executable.h>
#include <ovra/concurrent/SubmittedTask.h>
#include <ovra/concurrent/SubmittedTasksQueue.h>
#include <ovra/concurrent/Task.h>
#include <ovra/concurrent/TaskExecutor.h>
#include <ovra/concurrent/TaskExecutorImpl.h>
#include <ovra/concurrent/TaskExecutorWorker.h>
#include <ovra/concurrent/TaskExecutors.h>
#include <ovra/concurrent/TaskHandle.h>
#include <ovra/concurrent/TaskPriority.h>
#include <ovra/concurrent/TaskRankingStrategy.h>
#include <ovra/fs/FileHandle.h>
#include <ovra/fs/FileHandleBackendImpl.h>
#include <ovra/fs/FileIterator.h>
#include <ovra/fs/FilePath.h>
#include <ovra/log/Log.h>
#include <ovra/log/LogHandlers.h>

/// Does nothing. Lets an application's build refer to the library by one plain C name.
extern "C" OVRA_API void ovra_xcode_target_object_glue();
