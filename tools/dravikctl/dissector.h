// The Wireshark dissector for captures of monitor --pcap: a Lua script whose
// frame layout and class table come from the service's own (frame_format.h
// and the catalogue), so that it cannot drift from them.
#ifndef DRAVIK_TOOLS_DRAVIKCTL_DISSECTOR_H_
#define DRAVIK_TOOLS_DRAVIKCTL_DISSECTOR_H_

#include <string>

namespace dravikctl {

// The whole script.
std::string wiresharkDissector();

}  // namespace dravikctl

#endif  // DRAVIK_TOOLS_DRAVIKCTL_DISSECTOR_H_
