#include "tools/proof/life.h"

#include <vector>

namespace proof {

// In the order in which they are played: each finds what those before it left.
extern const std::span<const Step> kPlantedSteps, kFirstSteps, kKioskSteps, kProtectionSteps, kSignatureSteps,
    kLaterSteps;

std::span<const Step> Steps() {
  static const std::vector<Step>* const all = [] {
    auto* const steps = new std::vector<Step>;
    for (const std::span<const Step>& part :
         {kPlantedSteps, kFirstSteps, kKioskSteps, kProtectionSteps, kSignatureSteps, kLaterSteps}) {
      steps->insert(steps->end(), part.begin(), part.end());
    }
    return steps;
  }();
  return *all;
}

}  // namespace proof
