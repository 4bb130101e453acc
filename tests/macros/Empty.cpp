// Nothing but what the compiler is asked to include.
