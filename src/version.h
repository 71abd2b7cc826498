// The version of the build, for the compiler and the resource compiler alike: both spellings change together.
#define NORVANE_VERSION_NUMBERS 2026, 10, 15, 1
#define NORVANE_VERSION_TEXT "2026-10-15-0001"
