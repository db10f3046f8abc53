// The one export macro of the library. Everything not marked with it stays
// hidden: the library is built with hidden visibility by default.
#pragma once

#if defined(_WIN32)
#  if defined(ORBIVANE_BUILDING_LIBRARY)
#    define ORBIVANE_EXPORT __declspec(dllexport)
#  else
#    define ORBIVANE_EXPORT __declspec(dllimport)
#  endif
#else
#  define ORBIVANE_EXPORT __attribute__((visibility("default")))
#endif
