#include "ledger/LedgerReader.h"

namespace Ledger::ReaderDetail {

const Zinc::Trace& trace() {
  static Zinc::Trace t("LedgerReader");
  return t;
}

}  // namespace Ledger::ReaderDetail
