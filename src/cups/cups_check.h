// Whether the guest has a CUPS that works.

#pragma once

namespace qnt {

inline constexpr int kCupsTries = 7;
inline constexpr unsigned kCupsPauseSeconds = 10;  // for sleep(3) between two tries

// True if CUPS answers.
bool isCupsAnswering();

// True if lpadmin is installed and CUPS answers within kCupsTries tries. Logs the reason if not.
[[nodiscard]] bool checkCups();

}  // namespace qnt
