// Other daemons that idle in a guest, as Debian packages them.

#pragma once

#include <string>
#include <vector>

namespace bench {

struct Neighbour {
    std::string name;
    std::vector<std::string> command;
};

// Those of earlyoom and qemu-ga that are found on PATH. earlyoom is kept from killing anything;
// qemu-ga listens to a socket in the working directory where a guest has a virtio port.
std::vector<Neighbour> installedNeighbours();

}  // namespace bench
