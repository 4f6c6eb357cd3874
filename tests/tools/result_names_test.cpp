#include "tools/rackscan/result_names.h"

#include <gtest/gtest.h>

namespace rackscan {
namespace {

// Every code that the library can return, with its published value.
TEST(ResultNames, NameEachCodeTheLibraryReturns)
{
    const struct {
        uint32_t code;
        const char* name;
    } published[] = {
        {0x00000000, "SCARD_S_SUCCESS"},
        {0x80100003, "SCARD_E_INVALID_HANDLE"},
        {0x80100004, "SCARD_E_INVALID_PARAMETER"},
        {0x80100006, "SCARD_E_NO_MEMORY"},
        {0x80100008, "SCARD_E_INSUFFICIENT_BUFFER"},
        {0x80100009, "SCARD_E_UNKNOWN_READER"},
        {0x8010000A, "SCARD_E_TIMEOUT"},
        {0x8010000C, "SCARD_E_NO_SMARTCARD"},
        {0x8010000F, "SCARD_E_PROTO_MISMATCH"},
        {0x80100011, "SCARD_E_INVALID_VALUE"},
        {0x80100017, "SCARD_E_READER_UNAVAILABLE"},
        {0x8010002E, "SCARD_E_NO_READERS_AVAILABLE"},
        {6, "ERROR_INVALID_HANDLE"},
        {50, "ERROR_NOT_SUPPORTED"},
    };
    for (const auto& entry : published) {
        const char* name = resultName(entry.code);
        ASSERT_NE(name, nullptr) << std::hex << entry.code;
        EXPECT_STREQ(name, entry.name);
    }
}

TEST(ResultNames, DescribeGivesNameAndValueOrTheValueAlone)
{
    EXPECT_EQ(describeResult(0x8010000C), "SCARD_E_NO_SMARTCARD (0x8010000C)");
    EXPECT_EQ(describeResult(0x80100099), "0x80100099");
    EXPECT_EQ(describeResult(1), "0x00000001");
}

}  // namespace
}  // namespace rackscan
