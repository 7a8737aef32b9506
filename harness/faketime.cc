#include "harness/faketime.h"

#include <glob.h>

std::string fakeTimeLibrary(const std::string& daemonSanitizers, std::string* whyNot) {
  if (!daemonSanitizers.empty()) {
    *whyNot = "dravik is built with -fsanitize=" + daemonSanitizers + ", which cannot run with libfaketime preloaded";
    return "";
  }
  std::string path;
  for (const char* pattern : {"/usr/lib/*/faketime/libfaketimeMT.so.1", "/usr/lib/faketime/libfaketimeMT.so.1",
                              "/usr/local/lib/faketime/libfaketimeMT.so.1"}) {
    glob_t found{};
    if (glob(pattern, 0, nullptr, &found) == 0 && found.gl_pathc > 0) path = found.gl_pathv[0];
    globfree(&found);
    if (!path.empty()) return path;
  }
  *whyNot = "libfaketime is not installed (Debian packages faketime, libfaketime)";
  return "";
}
