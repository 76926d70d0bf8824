// Answers of a host that is broken or hostile.

#pragma once

#include <random>

#include "sim/simulated_host.h"

namespace sim {

// Makes random commands and default printers, most of them mutated, and sizes that are asked for.
// The same seed gives the same answers.
class RandomAnswers {
public:
    explicit RandomAnswers(unsigned seed) : m_random(seed) {}

    // Queues answers to the next `number` requests of the run loop, and to as many of the
    // default-printer worker.
    void queue(SimulatedHost& host, unsigned number);
    // A name or an id: a common one, or up to 49 random bytes.
    std::string text();

private:
    unsigned below(unsigned limit) { return static_cast<unsigned>(m_random() % limit); }
    Bytes mutated(Bytes bytes);
    Fault fault(const Bytes& answer, unsigned percentMutated);

    std::mt19937 m_random;
};

}  // namespace sim
