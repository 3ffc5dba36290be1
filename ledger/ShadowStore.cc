#include "ledger/ShadowStore.h"

namespace Ledger::ShadowDetail {

const Zinc::Trace& trace() {
  static Zinc::Trace t("LedgerShadow");
  return t;
}

}  // namespace Ledger::ShadowDetail
