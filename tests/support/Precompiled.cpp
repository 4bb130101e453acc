// Empty: CMake puts the precompiled headers before it.
