#include "fates.h"

#include "unserved.h"

namespace kes_engine {

Fates &Fates::operator+=(const Fates &other) {
    returned += other.returned;
    taken += other.taken;
    undelivered += other.undelivered;
    transmitted += other.transmitted;
    returnedControl += other.returnedControl;
    for (size_t row = 0; row < undeliveredByClass.size(); ++row) {
        undeliveredByClass[row] += other.undeliveredByClass[row];
    }
    return *this;
}

FateCaptures::FateCaptures(const OutputDirectory &out)
    : returned_(out.PathOf(kReturnedCapture)),
      undelivered_(out.PathOf(kUndeliveredCapture)),
      transmitted_(out.PathOf(kTransmittedCapture)) {}

void FateCaptures::Account(Fates &counts, const HostMbuf *packet, standin::Fate fate,
                           bool transmitted) {
    switch (fate) {
        case standin::Fate::kTaken:
            ++counts.taken;
            break;
        case standin::Fate::kReturned:
            ++(transmitted ? counts.transmitted : counts.returned);
            counts.returnedControl += !transmitted && IsControl(packet) ? 1 : 0;
            (transmitted ? transmitted_ : returned_).Write(packet);
            if (unserved_ != nullptr && !transmitted) {
                unserved_->Count(packet, false);
            }
            break;
        case standin::Fate::kUndelivered:
            ++counts.undelivered;
            CountByClass(counts.undeliveredByClass, packet);
            undelivered_.Write(packet);
            if (unserved_ != nullptr) {
                unserved_->Count(packet, true);
            }
            break;
    }
}

std::vector<std::string> FateCaptures::Close() {
    return {returned_.Close(), undelivered_.Close(), transmitted_.Close()};
}

}  // namespace kes_engine
