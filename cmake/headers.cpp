// Nothing: the library exists for the headers that are precompiled with it.
