// Whether the guest has a working CUPS.

#pragma once

namespace qnt {

inline constexpr int kCupsTries = 7;
inline constexpr unsigned kCupsPauseSeconds = 10;  // between two tries

// Looks for lpadmin on the search path and waits until lpstat succeeds. Logs what is missing.
bool isCupsAvailable();

}  // namespace qnt
