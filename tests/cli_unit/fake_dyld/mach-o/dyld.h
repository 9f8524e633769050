#pragma once
// A fake of the one function of the platform's header that we use; the test gives it a body.
#include <cstdint>

// The name is the platform's. NOLINTNEXTLINE(bugprone-reserved-identifier)
extern "C" int _NSGetExecutablePath(char* buffer, std::uint32_t* size);
