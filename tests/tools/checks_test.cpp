// What uozctl tells about remote command documents before anything is sent
// (its configuration checks are pinned by uozctl's golden files, from the
// same inputs). The documents and their problems are golden/documents.txt.
#include <gtest/gtest.h>

#include "config_check.h"
#include "document_check.h"
#include "golden.h"

namespace {

TEST(ChecksTest, remoteCommandDocumentsAreCheckedFieldByField) {
    uozctl::ConfigReport config = uozctl::check_config(UOZ_GOLDEN "/inputs/reasons.json");
    ASSERT_EQ(config.file_error, "");
    const time_t now = 1780272000;  // 2026-06-01T00:00:00Z
    for (const uoztest::GoldenCase &test : uoztest::golden_cases(UOZ_GOLDEN "/documents.txt"))
        EXPECT_EQ(uozctl::check_document(test["document"], config, now), test["problem"])
            << test.name;
}

}  // namespace
