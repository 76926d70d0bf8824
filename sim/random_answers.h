// Answers of a host that is broken or hostile.

#pragma once

#include <random>

#include "sim/simulated_host.h"

namespace sim {

// Makes random commands and default printers, most of them mutated, and sizes that are asked for.
// The same start gives the same answers.
class RandomAnswers {
public:
    explicit RandomAnswers(unsigned start) : m_random(start) {}

    // Queues answers to so many requests of the run loop, and of the default-printer worker.
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
