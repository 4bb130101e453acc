// Nothing but what the compiler is told to include.
