// Exists only for its precompiled headers.
int main() {}
