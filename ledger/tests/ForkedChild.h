// The ledger tests' forked child: the platform tests' helper.
#pragma once

#include "platform/tests/ForkedChild.h"

namespace LedgerTest {
using TestSupport::ForkedChild;
}
