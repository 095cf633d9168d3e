// Symbol visibility for QEVR's public API.
#pragma once

#if defined(QEVR_SHARED_LIBRARY)
#if defined(_WIN32)
#define QEVR_API __declspec(dllexport)
#else
#define QEVR_API __attribute__((visibility("default")))
#endif
#else
#define QEVR_API
#endif
