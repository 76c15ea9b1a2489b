// Build-wide macros: the namespace every class lives in and the export marker.
#pragma once

#define KELMA_NAMESPACE kelma

// Classes of the exported surface carry KELMA_API; everything else is built
// with hidden visibility, so the shared library exposes only what hosts use.
#if defined(_WIN32)
#  if defined(KELMA_BUILDING_LIBRARY)
#    define KELMA_API __declspec(dllexport)
#  else
#    define KELMA_API __declspec(dllimport)
#  endif
#else
#  define KELMA_API __attribute__((visibility("default")))
#endif
