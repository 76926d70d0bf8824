// The link over the hypervisor's backdoor: a call of any size in transfers of at most maxTransfer
// bytes each way.

#pragma once

#include <cstdint>

#include "hostlink/kavelink.h"

namespace qnt {

std::int32_t backdoorCall(KavelinkLink& link, void* buffer, std::uint32_t inputSize,
                          std::uint32_t outputSize, std::uint32_t* answerLength);

}  // namespace qnt
