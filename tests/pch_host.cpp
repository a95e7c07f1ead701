// The program that owns the test programs' precompiled header: it has their compile
// options, so its header is one they can use. It is never run.
