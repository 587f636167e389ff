// Compiled for the precompiled header beside it alone.
