// Loads, and is no module.
extern "C" __attribute__((visibility("default"))) int unrelated() {
  return 0;
}
