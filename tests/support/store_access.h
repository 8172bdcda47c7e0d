#pragma once
// For tests only: the database under a CaptureStore, to seed and inspect rows
// with plain SQL. Product code goes through the store's own operations.
#include "core/store/capture_store.h"

namespace mirel {

struct CaptureStoreTestAccess {
    static Database& database(CaptureStore& store) { return *store.db_; }
};

}  // namespace mirel
