// The switches of VORN_SEMANTICS.
#include "runtime/semantics.h"

#include "runtime/envfile.h"
#include "support/gtest.h"

#include <stdlib.h>
#include <string.h>

namespace {

// Reads the list as a process does that meets it first.
int read_list(const char *list)
{
    setenv("VORN_SEMANTICS", list, 1);
    _vorn_init_semantics();
    return _vorn_read_semantics();
}

TEST(Semantics, TableHasItsRows)
{
    EXPECT_EQ(_vorn_sem[0].kind, 0);
    EXPECT_STREQ(_vorn_sem[0].key, "FDL_LEN");
    EXPECT_EQ(_vorn_sem[1].kind, 1);
    EXPECT_STREQ(_vorn_sem[1].key, "CRYPT_SW");
    EXPECT_EQ(_vorn_sem[2].kind, 2);
    EXPECT_STREQ(_vorn_sem[2].key, "");
    EXPECT_EQ(sizeof(sem_elem), 516u);
}

TEST(Semantics, UnsetVariableLeavesAllOff)
{
    unsetenv("VORN_SEMANTICS");
    EXPECT_EQ(_vorn_read_semantics(), 1);
    EXPECT_EQ(_vorn_semantics_flag, 0);
    EXPECT_EQ(_vorn_flen_flag, 0);
    EXPECT_EQ(_vorn_crypt_sw, 0);
}

TEST(Semantics, ValuesOfTheFieldLength)
{
    const struct {
        const char *list;
        int flag;
    } cases[] = {{"FDL_LEN=OLD", 1}, {"FDL_LEN=TRU", 2}, {"FDL_LEN=ERR", 3}, {"FDL_LEN:TRU", 2}};
    for (const auto &row : cases) {
        EXPECT_EQ(read_list(row.list), 1) << row.list;
        EXPECT_EQ(_vorn_flen_flag, row.flag) << row.list;
        EXPECT_EQ(_vorn_semantics_flag, 1);
    }
}

TEST(Semantics, UnknownValueChangesNothingWithoutComplaint)
{
    for (const char *list : {"FDL_LEN=tru", "FDL_LEN=", "FDL_LEN=TRUE", "CRYPT_SW=N", "CRYPT_SW=YES"}) {
        EXPECT_EQ(read_list(list), 1) << list;
        EXPECT_EQ(_vorn_flen_flag, 0) << list;
        EXPECT_EQ(_vorn_crypt_sw, 0) << list;
        EXPECT_EQ(_vorn_semantics_flag, 1) << list;
    }
}

TEST(Semantics, BothSwitchesInOneList)
{
    EXPECT_EQ(read_list("FDL_LEN=TRU,CRYPT_SW=Y"), 1);
    EXPECT_EQ(_vorn_flen_flag, 2);
    EXPECT_EQ(_vorn_crypt_sw, 1);
    EXPECT_EQ(read_list("CRYPT_SW=y,FDL_LEN=OLD,"), 1);
    EXPECT_EQ(_vorn_flen_flag, 1);
    EXPECT_EQ(_vorn_crypt_sw, 1);
}

TEST(Semantics, BlanksVanishAndAColonServesAsEqual)
{
    EXPECT_EQ(read_list("FDL_LEN:ERR , CRYPT_SW = y"), 1);
    EXPECT_EQ(_vorn_flen_flag, 3);
    EXPECT_EQ(_vorn_crypt_sw, 1);
    EXPECT_EQ(read_list(" F D L _ L E N=O LD\t"), 1);
    EXPECT_EQ(_vorn_flen_flag, 1);
}

TEST(Semantics, BadListFailsAtEachReadAndSwitchesNothing)
{
    const char *lists[] = {"FDL_LENGTH=OLD",          "NOPE=Y", "FDL_LEN", "FDL_LEN=TRU,NOPE=Y",
                           "FDL_LEN=TRU,,CRYPT_SW=Y", ",",      "=OLD"};
    for (const char *list : lists) {
        EXPECT_EQ(read_list(list), -1) << list;
        EXPECT_EQ(_vorn_read_semantics(), -1) << list;
        EXPECT_EQ(_vorn_semantics_flag, 0) << list;
        EXPECT_EQ(_vorn_flen_flag, 0) << list;
        EXPECT_EQ(_vorn_crypt_sw, 0) << list;
    }
}

TEST(Semantics, EmptyListIsGood)
{
    EXPECT_EQ(read_list(""), 1);
    EXPECT_EQ(_vorn_semantics_flag, 1);
}

TEST(Semantics, ReadsOnlyOnce)
{
    EXPECT_EQ(read_list("FDL_LEN=TRU"), 1);
    setenv("VORN_SEMANTICS", "FDL_LEN=ERR", 1);
    EXPECT_EQ(_vorn_read_semantics(), 1);
    EXPECT_EQ(_vorn_flen_flag, 2);
}

TEST(Semantics, KeyThatIsLeftOutKeepsItsEarlierValue)
{
    EXPECT_EQ(read_list("FDL_LEN=TRU,CRYPT_SW=Y"), 1);
    EXPECT_EQ(read_list("CRYPT_SW=N"), 1);
    EXPECT_EQ(_vorn_flen_flag, 2);
    EXPECT_EQ(_vorn_crypt_sw, 0);
}

TEST(Semantics, RemovedVariableKeepsTheLastFlags)
{
    EXPECT_EQ(read_list("FDL_LEN=TRU,CRYPT_SW=Y"), 1);
    unsetenv("VORN_SEMANTICS");
    _vorn_clrenvflag();
    EXPECT_EQ(_vorn_semantics_flag, 1);
    EXPECT_EQ(_vorn_flen_flag, 2);
    EXPECT_EQ(_vorn_crypt_sw, 1);
}

TEST(Semantics, ChangedEnvironmentIsReadAnew)
{
    EXPECT_EQ(read_list("FDL_LEN=TRU"), 1);
    static char assignment[] = "VORN_SEMANTICS=FDL_LEN=ERR";
    EXPECT_EQ(tpputenv(assignment), 0);
    EXPECT_EQ(_vorn_semantics_flag, 0);
    EXPECT_EQ(_vorn_read_semantics(), 1);
    EXPECT_EQ(_vorn_flen_flag, 3);
}

TEST(Semantics, OverlongValueIsRefused)
{
    std::string fits = "FDL_LEN=" + std::string(248, 'x');  // a token of 256 bytes
    EXPECT_EQ(read_list(fits.c_str()), 1);
    EXPECT_STREQ(_vorn_sem[0].value, fits.c_str() + 8);
    EXPECT_EQ(read_list((fits + "x").c_str()), -1);
    EXPECT_EQ(read_list(std::string(100000, 'x').c_str()), -1);
    std::string many = "CRYPT_SW=Y";
    for (int i = 0; i < 100; i++)
        many += ",CRYPT_SW=Y";
    EXPECT_EQ(read_list(many.c_str()), 1);
    char token[300] = "FDL_LEN=";
    memset(token + 8, 'y', 256);
    EXPECT_EQ(_get_sem_value(token), -1);
    token[8 + 255] = '\0';
    EXPECT_EQ(_get_sem_value(token), 1);
}

TEST(Semantics, KeyMovesTheCursor)
{
    char text[] = "CRYPT_SW=Y";
    char *cursor = text;
    EXPECT_EQ(_get_sem_key(&cursor), 1);
    EXPECT_EQ(cursor, text + 8);
    char other[] = "CRYPT";
    cursor = other;
    EXPECT_EQ(_get_sem_key(&cursor), -1);
    EXPECT_EQ(cursor, other);
}

}
