// A library for the module tests: LoadLibraryW("fikivtestmodule.dll") finds it
// as libfikivtestmodule.so and GetProcAddress binds its one export.
extern "C" __attribute__((visibility("default"))) int fikivTestAnswer() {
    return 42;
}
