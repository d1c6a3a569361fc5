#include <gtest/gtest.h>

#include "store/ServiceIdentifiers.h"

namespace lectern {
TEST(ServiceIdentifiers, Placeholder) { EXPECT_EQ(serviceTypeWithName("localrss"), ServiceType::kLocalRSS); }
}  // namespace lectern
