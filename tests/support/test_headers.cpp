// Nothing but its precompiled headers is of use.
int main() {}
