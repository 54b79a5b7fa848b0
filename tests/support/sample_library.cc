// A small shared library for SharedLib's tests: one exported function.
#if defined(_WIN32)
#define SAMPLE_EXPORT extern "C" __declspec(dllexport)
#else
#define SAMPLE_EXPORT extern "C" __attribute__((visibility("default")))
#endif

SAMPLE_EXPORT int oru_sample_add(int a, int b) {
  return a + b;
}
