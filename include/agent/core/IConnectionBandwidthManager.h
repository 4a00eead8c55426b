#pragma once

#include "agent/Export.h"

namespace agent::core {

/// The bandwidth that a connection may use, as the embedding program decides and changes it. Rates are in bits per
/// second.
///
/// The order of its virtual functions is part of the binary interface.
class AGENTKIT_API IConnectionBandwidthManager {
public:
    virtual ~IConnectionBandwidthManager();

    /// Whether the limit is in force.
    virtual bool isLimited() const = 0;
    virtual void setLimited(bool limited) = 0;

    virtual unsigned int limitInBitsPerSecond() const = 0;
    virtual void setLimitInBitsPerSecond(unsigned int rate) = 0;

    /// The rate without limit, which no limit raises.
    virtual unsigned int nominalRateInBitsPerSecond() const = 0;
    virtual void setNominalRateInBitsPerSecond(unsigned int rate) = 0;

    /// The most that one write may send, in bits.
    virtual unsigned int maximumWriteSizeInBits() const = 0;
};

} // namespace agent::core
