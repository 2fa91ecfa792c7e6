// Error cells, texts and mappings. The tables are written down here once more, by number, so that a row that
// is moved or reworded is seen.
#include "runtime/tperror.h"

#include "runtime/capture.h"
#include "runtime/mthr.h"
#include "runtime/xaerror.h"
#include "support/faults.h"
#include "support/gtest.h"

#include <climits>
#include <errno.h>
#include <map>
#include <string.h>

namespace {

void set_fberror(int number)
{
    *_tmget_fberror_addr() = number;
}

TEST(NativeTexts, EachNumberHasItsText)
{
    const std::map<int, std::string> texts = {
        {2, "bad call descriptor(TPEBADDESC)"},
        {3, "blocking condition found(TPEBLOCK)"},
        {4, "invalid arguments(TPEINVAL)"},
        {5, "system defined limit reached(TPELIMIT)"},
        {6, "no entry found(TPENOENT)"},
        {7, "operating system error(TPEOS)"},
        {9, "protocol error(TPEPROTO)"},
        {10, "service request processing error(TPESVCERR)"},
        {11, "service failure(TPESVCFAIL)"},
        {12, "system internal error(TPESYSTEM)"},
        {13, "timeout(TPETIME)"},
        {14, "transaction error(TPETRAN)"},
        {15, "signal received(TPGOTSIG)"},
        {17, "input data type error(TPEITYPE)"},
        {18, "output data type error(TPEOTYPE)"},
        {22, "event occurred(TPEEVENT)"},
        {23, "no matching entry found(TPEMATCH)"},
        {24, "no service or server ready(TPENOREADY)"},
        {25, "security check error(TPESECURITY)"},
        {26, "queue limit reached(TPEQFULL)"},
        {27, "service request queue purged(TPEQPURGE)"},
        {28, "communication channel closed(TPECLOSE)"},
        {29, "server down error(TPESVRDOWN)"},
        {30, "pre-service processing error(TPEPRESVC)"},
        {31, "server rolling down error(TPERDOWN)"},
        {32, "communication channel closed in rolling down(TPERDCLOSE)"},
    };
    for (int number = 0; number < 34; number++) {
        auto row = texts.find(number);
        EXPECT_STREQ(tpstrerror(number), row == texts.end() ? "" : row->second.c_str()) << number;
        EXPECT_EQ(tpstrerror(number), _tperr_strtab[number]);
    }
}

TEST(NativeTexts, NumbersOutsideTheTableGiveTheEmptyLastRow)
{
    for (int number : {-1, 33, 34, 1000, INT_MAX, INT_MIN})
        EXPECT_EQ(tpstrerror(number), _tperr_strtab[33]) << number;
    EXPECT_STREQ(_tperr_strtab[33], "");
}

TEST(NativeTexts, NumbersAndNamesAgree)
{
    const std::map<std::string, int> names = {
        {"TPEBADDESC", TPEBADDESC},   {"TPEBLOCK", TPEBLOCK},     {"TPEINVAL", TPEINVAL},
        {"TPELIMIT", TPELIMIT},       {"TPENOENT", TPENOENT},     {"TPEOS", TPEOS},
        {"TPEPROTO", TPEPROTO},       {"TPESVCERR", TPESVCERR},   {"TPESVCFAIL", TPESVCFAIL},
        {"TPESYSTEM", TPESYSTEM},     {"TPETIME", TPETIME},       {"TPETRAN", TPETRAN},
        {"TPGOTSIG", TPGOTSIG},       {"TPEITYPE", TPEITYPE},     {"TPEOTYPE", TPEOTYPE},
        {"TPEEVENT", TPEEVENT},       {"TPEMATCH", TPEMATCH},     {"TPENOREADY", TPENOREADY},
        {"TPESECURITY", TPESECURITY}, {"TPEQFULL", TPEQFULL},     {"TPEQPURGE", TPEQPURGE},
        {"TPECLOSE", TPECLOSE},       {"TPESVRDOWN", TPESVRDOWN}, {"TPEPRESVC", TPEPRESVC},
        {"TPERDOWN", TPERDOWN},       {"TPERDCLOSE", TPERDCLOSE},
    };
    EXPECT_EQ(names.size(), 26u);
    for (const auto &[name, number] : names) {
        std::string text = tpstrerror(number);
        EXPECT_NE(text.find("(" + name + ")"), std::string::npos) << name << " " << text;
    }
}

const char *const COMPAT_TEXTS[27] = {
    "TPMINVAL",
    "transaction commit fail(TPEABORT)",
    "bad call descriptor(TPEBADDESC)",
    "blocking condition found(TPEBLOCK)",
    "invalid arguments(TPEINVAL)",
    "system defined limit reached(TPELIMIT)",
    "no entry found(TPENOENT)",
    "operating system error(TPEOS)",
    "permission not allowed(TPEPERM)",
    "protocall error(TPEPROTO)",
    "service request processing error(TPESVCERR)",
    "service failure(TPESVCFAIL)",
    "system internal error(TPESYSTEM)",
    "timeout(TPETIME)",
    "transaction error(TPETRAN)",
    "signal received(TPGOTSIG)",
    "resource manager error(TPERMERR)",
    "input data type error(TPEITYPE)",
    "output data type error(TPEOTYPE)",
    "version mismatch(TPERELEASE)",
    "transaction may have been heuristically completed(TPEHAZARD)",
    "transaction has been heuristically commited(TPEHEURISTIC)",
    "event occurred(TPEEVENT)",
    "no matching entry found(TPEMATCH)",
    "check diagnostic value(TPEDIAGNOSTIC)",
    "MIB error(TPEMIB)",
    "TPMAXVAL",
};

TEST(CompatibilityTexts, EachNumberHasItsText)
{
    for (int number = 0; number < 27; number++)
        EXPECT_STREQ(_tmget_compat_strerror(number), COMPAT_TEXTS[number]) << number;
    for (int number : {27, 32, -1, INT_MIN, INT_MAX})
        EXPECT_STREQ(_tmget_compat_strerror(number), "TPMAXVAL") << number;
}

TEST(FieldTexts, EachNativeNumberHasItsText)
{
    const char *const texts[22] = {
        "FBEMINNO (bottom of error message codes)",
        "EBEALIGN (alignment error)",
        "FBEFTSYNTAX (bad field table)",
        "FBEBADFB (bad field key buffer)",
        "FBEINVAL (invalid argument)",
        "FBELIMIT (limit over)",
        "FBENOENT (not found)",
        "FBEOS (OS error)",
        "FBEBADFLD (bad field)",
        "FBEPROTO (prototype error)",
        "FBENOSPACE (no space)",
        "FBEMALLOC (malloc error)",
        "FBESYSTEM (system error)",
        "FBETYPE (type error)",
        "FBEMATCH (no match)",
        "FBEBADSTRUCT (bad struct)",
        "FBEVTSYNTAX (bad viewfile)",
        "FBEVFOPEN (file open error)",
        "FBEBADACM",
        "FBENOCNAME (cname not founc)",
        "FBEBADTBL (bad table)",
        "FBEMAXNO (top of error message codes)",
    };
    for (int number = 0; number < 22; number++)
        EXPECT_STREQ(fbstrerror(number), texts[number]) << number;
    for (int number : {22, 23, -1, INT_MIN, INT_MAX})
        EXPECT_STREQ(fbstrerror(number), texts[21]) << number;
    EXPECT_STREQ(_fberr_strtab[22], "");
}

TEST(FieldTexts, EachCompatibilityNumberHasItsText)
{
    const char *const texts[22] = {
        "",
        "FALIGN (fielded buffer not aligned)",
        "FNOTFLD (buffer not fielded)",
        "FNOSPACE (no space in fielded buffer)",
        "FNOTPRES (field not present)",
        "FBADFLD (unknown field number or type)",
        "FTYPERR (illegal field type)",
        "FEUNIX (UNIX system call error)",
        "FBADNAME (unknown field name)",
        "FMALLOC (malloc failed)",
        "FSYNTAX (bad syntax in boolean expression)",
        "FFTOPEN (cannot find or open field table)",
        "FFTSYNTAX (syntax error in field table)",
        "FEINVAL (invalid argument to function)",
        "FBADTBL (destructive concurrent access to field table)",
        "FBADVIEW (cannot find or get view)",
        "FVFSYNTAX (syntax error in viewfile)",
        "FVFOPEN (cannot find or open viewfile)",
        "FBADACM (ACM contains negative value)",
        "FNOCNAME (cname not found)",
        "FEBADOP (invalid field type)",
        "",
    };
    for (int number = 0; number < 22; number++)
        EXPECT_STREQ(_tmget_compat_strFerror(number), texts[number]) << number;
    for (int number : {22, -1, INT_MIN, INT_MAX})
        EXPECT_EQ(_tmget_compat_strFerror(number), _Ferr_strtab[21]) << number;
}

TEST(UnixTexts, EachNumberHasItsName)
{
    const char *const names[34] = {
        "UUNIXMIN", "UCLOSE",  "UCREAT", "UEXEC",   "UFCTNL", "UFORK",   "ULSEEK",   "UMSGCTL", "UMSGGET",
        "UMSGSND",  "UMSGRCV", "UOPEN",  "UPLOCK",  "UREAD",  "USEMCTL", "USEMGET",  "USEMOP",  "USHMCTL",
        "USHMGET",  "USHMAT",  "USHMDT", "USTAT",   "UWRITE", "USBRK",   "USYSMUL",  "UWAIT",   "UKILL",
        "UTIME",    "UMKDIR",  "ULINK",  "UUNLINK", "UUNAME", "UNLIST",  "UUNIXMAX",
    };
    for (int number = 0; number < 34; number++)
        EXPECT_STREQ(Ustrerror(number), names[number]) << number;
    for (int number : {34, -1, INT_MIN, INT_MAX})
        EXPECT_STREQ(Ustrerror(number), "UUNIXMAX") << number;
    EXPECT_STREQ(Ustrerror(UOPEN), "UOPEN");
    EXPECT_STREQ(Ustrerror(UNLIST), "UNLIST");
}

const struct {
    int code;
    const char *text;
} TX_TEXTS[] =
    {
        {1, "TX_NOT_SUPPORTED (option not supported)"},
        {0, "TX_OK (normal execution)"},
        {-1, "TX_OUTSIDE (application is in an RM local transaction)"},
        {-2, "TX_ROLLBACK (transaction was rolled back)"},
        {-3, "TX_MIXED (transaction was partially committed and partially rolled back)"},
        {-4, "TX_HAZARD (transaction may have been partially committed and partially rolled back)"},
        {-5, "TX_PROTOCOL_ERROR (routine invoked in an improper context)"},
        {-6, "TX_ERROR (transient error)"},
        {-7, "TX_FAIL (fatal error)"},
        {-8, "TX_EINVAL (invalid arguments were given)"},
        {-9, "TX_COMMITTED (transaction has heuristically committed)"},
        {-100, "TX_NO_BEGIN (transaction committed plus new transaction could not be started)"},
        {-102, "TX_ROLLBACK_NO_BEGIN (transaction rollback plus new transaction could not be started)"},
        {-103, "TX_MIXED_NO_BEGIN (mixed plus new transaction could not be started)"},
        {-104, "TX_HAZARD_NO_BEGIN (hazard plus new transaction could not be started)"},
        {-109, "TX_COMMITTED_NO_BEGIN (heuristically committed plus new transaction could not be started)"},
},
  XA_TEXTS[] = {
      {100, "XA_RBROLLBACK (The rollback was caused by an unspecified reason)"},
      {101, "XA_RBCOMMFAIL (The rollback was caused by a communication failure)"},
      {102, "XA_RBDEADLOCK (A deadlock was detected)"},
      {103, "XA_RBINTEGRITY (A condition that violates the integrity of the resources was detected)"},
      {104,
       "XA_RBOTHER (The resource manager rolled back the transaction branch for a reason not on this list)"},
      {105, "XA_RBPROTO (A protocol error occurred in the resource manager)"},
      {106, "XA_RBTIMEOUT (A transaction branch took too long)"},
      {107, "XA_RBTRANSIENT (May retry the transaction branch)"},
      {107, "XA_RBEND (The inclusive upper bound of the rollback codes)"},
      {9, "XA_NOMIGRATE (resumption must occur where suspension occurred)"},
      {8, "XA_HEURHAZ (the transaction branch may have been heuristically completed)"},
      {7, "XA_HEURCOM (the transaction branch has been heuristically committed)"},
      {6, "XA_HEURRB (the transaction branch has been heuristically rolled back)"},
      {5, "XA_HEURMIX (the transaction branch has been heuristically committed and rolled back)"},
      {4, "XA_RETRY (routine returned with no effect and may be re-issued)"},
      {3, "XA_RDONLY (the transaction branch was read-only and has been committed)"},
      {0, "XA_OK (normal execution)"},
      {-2, "XAER_ASYNC (asynchronous operation already outstanding)"},
      {-3, "XAER_RMERR (a resource manager error occurred in the transaction branch)"},
      {-4, "XAER_NOTA (the XID is not valid)"},
      {-5, "XAER_INVAL (invalid arguments were given)"},
      {-6, "XAER_PROTO (routine invoked in an improper context)"},
      {-7, "XAER_RMFAIL (resource manager unavailable)"},
      {-8, "XAER_DUPID (the XID already exists)"},
      {-9, "XAER_OUTSIDE (resource manager doing work outside global transaction)"},
};

TEST(TxTexts, TableStandsInOrderAndIsSearched)
{
    int row = 0;
    for (const auto &expected : TX_TEXTS) {
        EXPECT_EQ(_txerr_strtab[row].code, expected.code) << row;
        EXPECT_STREQ(_txerr_strtab[row].text, expected.text) << row;
        EXPECT_STREQ(txstrerror(expected.code), expected.text);
        row++;
    }
    EXPECT_EQ(row, 16);
    EXPECT_EQ(_txerr_strtab[row].text, nullptr);
    for (int code : {-101, 2, -10, INT_MIN})
        EXPECT_STREQ(txstrerror(code), "no such tx_ return code") << code;
}

TEST(XaTexts, TableStandsInOrderAndTheFirstOfTwoEqualCodesWins)
{
    int row = 0;
    for (const auto &expected : XA_TEXTS) {
        EXPECT_EQ(_xaerr_strtab[row].code, expected.code) << row;
        EXPECT_STREQ(_xaerr_strtab[row].text, expected.text) << row;
        const char *found = row == 8 ? XA_TEXTS[7].text : expected.text;
        EXPECT_STREQ(xastrerror(expected.code), found);
        row++;
    }
    EXPECT_EQ(row, 25);
    EXPECT_EQ(_xaerr_strtab[row].text, nullptr);
    EXPECT_STREQ(xastrerror(107), "XA_RBTRANSIENT (May retry the transaction branch)");
    for (int code : {-1, 1, 2, 108, INT_MAX})
        EXPECT_STREQ(xastrerror(code), "no such xa_ return code") << code;
}

TEST(CompatibilityErrno, MapsEachNumber)
{
    const std::map<int, int> changed = {{24, 10}, {25, 8}, {26, 10}, {27, 10}, {28, 12}, {29, 10}, {30, 11}};
    for (int number = -2; number < 40; number++) {
        int expected = number <= 0 ? 0 : number > 32 ? 26 : number;
        if (changed.count(number) != 0)
            expected = changed.at(number);
        set_tperrno(number);
        EXPECT_EQ(*_tmget_compat_errno_addr(), expected) << number;
        EXPECT_EQ(gettperrno(), number);
    }
    EXPECT_EQ(_tmget_compat_errno_addr(), &current_block()->compat_errno);
}

TEST(CompatibilityErrno, ClosedConnectionInAllForms)
{
    set_tperrno(TPECLOSE);
    EXPECT_STREQ(tpstrerror(gettperrno()), "communication channel closed(TPECLOSE)");
    EXPECT_EQ(*_tmget_compat_errno_addr(), 12);
    EXPECT_EQ(tperrordetail(0), 2);
}

TEST(CompatibilityErrno, HighestNativeNumberHasNoText)
{
    set_tperrno(TPERDCLOSE);
    EXPECT_EQ(*_tmget_compat_errno_addr(), 32);
    EXPECT_STREQ(_tmget_compat_strerror(*_tmget_compat_errno_addr()), "TPMAXVAL");
}

TEST(CompatibilityFerror, MapsEachNumber)
{
    const int mapped[21] = {0, 1, 12, 2, 13, 5, 4, 7, 5, 10, 3, 9, 11, 6, 8, 15, 16, 17, 18, 19, 14};
    for (int number = -2; number < 25; number++) {
        set_fberror(number);
        int expected = number <= 0 ? 0 : number > 20 ? 21 : mapped[number];
        EXPECT_EQ(*_tmget_compat_Ferror_addr(), expected) << number;
        EXPECT_EQ(getFerror2(), expected) << number;
        EXPECT_EQ(getFerror(), number);
        EXPECT_EQ(getfberror(), number);
        EXPECT_EQ(getfberrno(), number);
        EXPECT_NE(getFerror2(), FEBADOP);
    }
    EXPECT_EQ(_tmget_compat_Ferror_addr(), &current_block()->compat_Ferror);
}

TEST(CompatibilityUnixError, MapsEachErrno)
{
    std::map<int, int> mapped;
    for (int error : {1, 2, 3, 15, 18, 19, 20, 21, 22, 23, 24, 31, 36, 98})
        mapped[error] = 11;
    for (int error : {4, 62, 110})
        mapped[error] = 27;
    for (int error : {5, 6, 26, 28, 30, 32, 70, 122})
        mapped[error] = 22;
    for (int error : {7, 9, 11, 16, 27, 74, 77, 88, 100, 102, 103, 104, 107})
        mapped[error] = 13;
    mapped[8] = 3;
    mapped[10] = 25;
    mapped[12] = mapped[14] = 23;
    mapped[17] = 2;
    mapped[29] = 6;
    mapped[35] = mapped[37] = 12;
    mapped[60] = mapped[61] = mapped[63] = 4;
    EXPECT_EQ(mapped.size(), 49u);
    for (int error = -5; error < 300; error++) {
        errno = error;
        int *cell = _tmget_compat_unixerrno_addr();
        EXPECT_EQ(errno, error);
        EXPECT_EQ(*cell, mapped.count(error) != 0 ? mapped[error] : 32) << error;
    }
    EXPECT_EQ(_tmget_compat_unixerrno_addr(), &current_block()->compat_unixerrno);
}

TEST(Cells, AreThoseOfTheCallersRow)
{
    *_tmget_tperrno_addr() = TPELIMIT;
    *_tmget_tpurcode_addr() = 0x123456789abcL;
    *_tmget_fberror_addr() = FBENOENT;
    EXPECT_EQ(_tmget_tperrno_addr(), &_main_wthrp->tperrno);
    EXPECT_EQ(gettperrno(), TPELIMIT);
    EXPECT_EQ(gettpurcode(), 0x123456789abcL);
    EXPECT_EQ(getfberror(), FBENOENT);
}

TEST(Cells, ReadingChangesNothing)
{
    set_tperrno(TPETIME);
    set_fberror(FBENOENT);
    getFerror2();
    tperrordetail(-1);
    _tmget_compat_errno_addr();
    EXPECT_EQ(gettperrno(), TPETIME);
    EXPECT_EQ(getfberror(), FBENOENT);
}

TEST(Cells, EachBoundThreadHasItsOwn)
{
    set_tperrno(TPEOS);
    int seen = -1;
    std::thread other([&] {
        _thread_lock();
        wthr_elem *row = _get_idle_wthr_ptr();
        _wthr_var_init(row);
        bind_row(row);
        _thread_unlock();
        set_tperrno(TPETIME);
        seen = gettperrno();
    });
    other.join();
    EXPECT_EQ(seen, TPETIME);
    EXPECT_EQ(gettperrno(), TPEOS);
}

TEST(ErrorDetail, OnlyTimeAndConnectionHaveOne)
{
    for (int number = -1; number < 40; number++) {
        set_tperrno(number);
        EXPECT_EQ(tperrordetail(0), number == 13 ? 1 : number == 28 ? 2 : -1) << number;
        EXPECT_EQ(tperrordetail(0x40), tperrordetail(0));
    }
}

TEST(UnixErrorPrinter, PrintsNameAloneOrBehindTheMessage)
{
    EXPECT_EQ(output_of([] {
                  errno = ENOENT;
                  Uunix_err(nullptr);
              }).err,
              "UOPEN\n");
    EXPECT_EQ(output_of([] {
                  errno = EPIPE;
                  Uunix_err("log");
              }).err,
              "log: UWRITE\n");
    EXPECT_EQ(output_of([] {
                  errno = 0;
                  Uunix_err("");
              }).err,
              ": UNLIST\n");
    EXPECT_EQ(output_of([] {
                  errno = 0;
                  Uunix_err("%s%n");
              }).err,
              "%s%n: UNLIST\n");
}

TEST(FieldErrorPrinters, PrintMessageAndTextWithoutNewline)
{
    set_fberror(FBEBADFLD);
    EXPECT_EQ(output_of([] { print_fberror("put"); }).err, "put: FBEBADFLD (bad field)");
    EXPECT_EQ(output_of([] { print_Ferror("put"); }).err, "put: FBADFLD (unknown field number or type)");
    set_fberror(0);
    EXPECT_EQ(output_of([] { print_fberror("x"); }).err, "x: FBEMINNO (bottom of error message codes)");
    EXPECT_EQ(output_of([] { print_Ferror("x"); }).err, "x: ");
    set_fberror(20);
    EXPECT_EQ(output_of([] { print_fberror(""); }).err, ": FBEBADTBL (bad table)");
}

TEST(FieldErrorPrinters, NumbersOutsideTheTableHaveNoText)
{
    for (int number : {21, 22, -1, INT_MIN, INT_MAX}) {
        set_fberror(number);
        Output both = output_of([] {
            print_fberror("x");
            print_Ferror("y");
        });
        EXPECT_EQ(both.err, "x: y: ") << number;
        EXPECT_EQ(both.out, "");
    }
}

TEST(FieldErrorPrinters, MessageIsAFormatWithoutArguments)
{
    set_fberror(FBENOENT);
    EXPECT_EQ(output_of([] { print_fberror("50%% of %%"); }).err, "50% of %: FBENOENT (not found)");
    EXPECT_EQ(output_of([] { print_Ferror("%s %n %1000d %"); }).err,
              "%s %n %1000d %: FNOTPRES (field not present)");
    EXPECT_EQ(output_of([] { print_fberror(nullptr); }).err, ": FBENOENT (not found)");
}

TEST(CompatibilityNames, StandForTheirNumbers)
{
    EXPECT_STREQ(_tmget_compat_strerror(TPEABORT), "transaction commit fail(TPEABORT)");
    EXPECT_STREQ(_tmget_compat_strerror(TPEPERM), "permission not allowed(TPEPERM)");
    EXPECT_STREQ(_tmget_compat_strerror(TPERMERR), "resource manager error(TPERMERR)");
    EXPECT_STREQ(_tmget_compat_strerror(TPERELEASE), "version mismatch(TPERELEASE)");
    EXPECT_STREQ(_tmget_compat_strerror(TPEDIAGNOSTIC), "check diagnostic value(TPEDIAGNOSTIC)");
    EXPECT_STREQ(_tmget_compat_strerror(TPEMIB), "MIB error(TPEMIB)");
    EXPECT_STREQ(fbstrerror(EBEALIGN), "EBEALIGN (alignment error)");
    EXPECT_STREQ(fbstrerror(FBEBADTBL), "FBEBADTBL (bad table)");
    EXPECT_EQ(FBEMAXNO, 21);
}

// Without memory for the tables there is no cell, and no way on.
TEST(CellsDeathTest, NoMemoryForTheTablesEndsTheProcess)
{
    EXPECT_EXIT(
        {
            faults::fail_allocation(1, true);
            gettperrno();
            _exit(0);
        },
        testing::ExitedWithCode(1), "0005 memory allocation error : size = ");
}

}
