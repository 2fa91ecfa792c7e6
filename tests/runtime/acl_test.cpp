// Access lists.
#include "vorn/acl.h"

#include "runtime/capture.h"
#include "support/faults.h"
#include "support/fixtures.h"
#include "wire/refuse.h"

#include <arpa/inet.h>
#include <thread>
#include <vector>

namespace {

unsigned ip(const char *text)
{
    in_addr address = {};
    EXPECT_EQ(inet_pton(AF_INET, text, &address), 1) << text;
    return address.s_addr;
}

struct AccessList : testing::Test {
    LogFile log;
    TempDir temp;
    std::string file = temp / "acl";
    acl *list = nullptr;

    ~AccessList() override { EXPECT_EQ(_acl_destroy(list), 1); }

    acl *load(const std::string &text)
    {
        _acl_destroy(list);
        write_file(file, text);
        return list = _acl_create(file.c_str(), 0);
    }

    // The entries in their order, as they'd stand in a file.
    std::string entries() const
    {
        std::string text;
        int count = 0;
        const acl_entry *last = nullptr;
        for (const acl_entry *entry = list->head; entry != nullptr; entry = entry->next) {
            char address[INET_ADDRSTRLEN];
            inet_ntop(AF_INET, &entry->ip, address, sizeof address);
            text += (text.empty() ? "" : " ") + std::string(address) + "/" + std::to_string(entry->mask);
            last = entry;
            count++;
        }
        EXPECT_EQ(list->count, count);
        EXPECT_EQ(list->tail, last);
        return text;
    }
};

const char BAD_IP[] = "(E) CLI 0209 internal error : ACL parsing error - invalid ip(";
const char BAD_MASK[] = "(E) CLI 0209 internal error : ACL parsing error - invalid mask(";

TEST(AccessListRecords, AreLaidOutForAll)
{
    EXPECT_EQ(sizeof(acl), 24u);
    EXPECT_EQ(offsetof(acl, tail), 8u);
    EXPECT_EQ(offsetof(acl, count), 16u);
    EXPECT_EQ(sizeof(acl_entry), 16u);
    EXPECT_EQ(offsetof(acl_entry, mask), 4u);
    EXPECT_EQ(offsetof(acl_entry, next), 8u);
}

TEST(AccessListMasks, AreTurnedByTheFirstListOnly)
{
    EXPECT_EQ(__vorn_acl_mask_tab_inited, 0);
    for (int n = 0; n <= 32; n++)
        EXPECT_EQ(__vorn_acl_mask_tab[n], (uint32_t)(0xffffffff00000000 >> n)) << n;
    for (int times = 0; times < 2; times++) {
        EXPECT_EQ(_acl_create(nullptr, 0), nullptr);
        EXPECT_EQ(__vorn_acl_mask_tab_inited, 1);
        for (int n = 0; n <= 32; n++)
            EXPECT_EQ(__vorn_acl_mask_tab[n], htonl((uint32_t)(0xffffffff00000000 >> n))) << n;
    }
}

TEST(AccessListMasks, AreTurnedOnceWhenListsAreMadeAtOnce)
{
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; i++)
        threads.emplace_back([] { EXPECT_EQ(_acl_create(nullptr, 0), nullptr); });
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(__vorn_acl_mask_tab[8], htonl(0xff000000));
}

TEST_F(AccessList, IsReadLineByLine)
{
    ASSERT_NE(load("# who may come in\n\n10.1.2.3\n10.2.3.4/16\n192.168.7.9/32\n172.16.0.1/0\n#10.9.9.9\n"
                   "1.2.3.4"),
              nullptr);
    EXPECT_EQ(entries(), "10.1.2.3/32 10.2.0.0/16 192.168.7.9/32 0.0.0.0/0 1.2.3.4/32");
    EXPECT_EQ(log.lines(), 0) << log.text();
}

TEST_F(AccessList, AllLetsInEverybodyButOne)
{
    for (const char *line : {"all\n", "ALL", "aLlowed hosts:\n", "all/8\n"}) {
        ASSERT_NE(load(line), nullptr);
        EXPECT_EQ(entries(), "0.0.0.0/0") << line;
        for (const char *address : {"0.0.0.0", "10.1.2.3", "255.255.255.254"})
            EXPECT_EQ(_acl_search(list, ip(address)), 1) << address;
        EXPECT_EQ(_acl_search(list, ip("255.255.255.255")), 0);
    }
    EXPECT_EQ(log.lines(), 0) << log.text();
}

TEST_F(AccessList, AnEmptyFileIsAnEmptyList)
{
    ASSERT_NE(load(""), nullptr);
    EXPECT_EQ(entries(), "");
    EXPECT_EQ(list->head, nullptr);
    EXPECT_EQ(_acl_search(list, ip("10.1.2.3")), 0);
}

TEST_F(AccessList, ADuplicateIsPassedOver)
{
    ASSERT_NE(load("10.1.2.3/8\n10.9.9.9/8\n10.0.0.0/9\n10.1.2.3/8\n"), nullptr);
    EXPECT_EQ(entries(), "10.0.0.0/8 10.0.0.0/9");
}

TEST_F(AccessList, BadAddressesAreLoggedAndPassedOver)
{
    const char *const bad[] = {"nonsense", "10.1.2", "256.1.1.1", "10.1.2.3.4", "1o.1.2.3", " 10.1.2.3", "10.1.2.3x",
                               "0x0a.1.2.3", "10.1.2.-3", "255.255.255.255", "::1", "al", " all", " # x", "%s%n"};
    std::string text;
    for (const char *address : bad)
        text += std::string(address) + "\n";
    ASSERT_NE(load(text + "10.7.7.7\n"), nullptr);
    EXPECT_EQ(entries(), "10.7.7.7/32");
    for (const char *address : bad)
        EXPECT_TRUE(log.has(BAD_IP + std::string(address) + ") [COM0053]")) << address << "\n" << log.text();
    EXPECT_EQ(log.lines(), (int)(sizeof bad / sizeof bad[0]));
}

TEST_F(AccessList, BadPrefixesAreLoggedAndPassedOver)
{
    ASSERT_NE(load("10.1.2.3/33\n10.1.2.4/-1\n10.1.2.5/2147483648\n10.1.2.6/4294967304\n10.1.2.7/8\n"
                   "10.1.2.8/all\n10.1.2.9/8x\n10.1.2.10/ \n10.1.2.11/0x8\n"),
              nullptr);
    EXPECT_EQ(entries(), "10.0.0.0/8");
    EXPECT_TRUE(log.has(BAD_MASK + std::string("33) [COM0054]"))) << log.text();
    EXPECT_TRUE(log.has(BAD_MASK + std::string("-1) [COM0054]"))) << log.text();
    EXPECT_EQ(log.lines(), 8) << log.text();
}

TEST_F(AccessList, SlashesAndBlanksBesideTheTokensDoNotMatter)
{
    ASSERT_NE(load("10.1.2.3//8\n/10.2.3.4/16\n10.3.4.5/24/9/x\n10.4.5.6/\n10.5.6.7 \t\r\n10.6.7.8/24 \r\n"
                   "10.7.8.9 /24\n"),
              nullptr);
    EXPECT_EQ(entries(), "10.0.0.0/8 10.2.0.0/16 10.3.4.0/24 10.4.5.6/32 10.5.6.7/32 10.6.7.0/24 10.7.8.0/24");
    EXPECT_EQ(log.lines(), 0) << log.text();
}

TEST_F(AccessList, LinesWithoutATokenAreBadAddresses)
{
    ASSERT_NE(load("/\n///\n \n"), nullptr);
    EXPECT_EQ(entries(), "");
    EXPECT_EQ(log.lines(), 3) << log.text();
}

TEST_F(AccessList, ALineHasUpTo1023Bytes)
{
    std::string blanks(1023 - strlen("10.1.2.3/24"), ' ');
    ASSERT_NE(load("10.1.2.3/24" + blanks + "\n"), nullptr);
    EXPECT_EQ(entries(), "10.1.2.0/24");
    EXPECT_EQ(log.lines(), 0) << log.text();
}

// A longer one is neither cut, which could make the network wider, nor read on as a line of its own.
TEST_F(AccessList, ALongerLineIsPassedOverWhole)
{
    std::string slashes(1023 - strlen("10.1.2.3/2"), '/');
    ASSERT_NE(load("10.1.2.3" + slashes + "/24\n10.9.9.9\n"), nullptr);
    EXPECT_EQ(entries(), "10.9.9.9/32");
    EXPECT_EQ(log.lines(), 1) << log.text();
    ASSERT_NE(load("#" + std::string(1022, 'x') + "all\nall" + std::string(100000, 'l') + "all"), nullptr);
    EXPECT_EQ(entries(), "");
    EXPECT_EQ(log.lines(), 2) << log.text();
}

TEST_F(AccessList, ALineWithANulIsPassedOverWhole)
{
    ASSERT_NE(load(std::string("10.1.2.3\0/24\n\0\nall\0\n10.9.9.9\n#\0all\n", 35)), nullptr);
    EXPECT_EQ(entries(), "10.9.9.9/32");
    EXPECT_EQ(log.lines(), 3) << log.text();
}

TEST_F(AccessList, WithoutAFileThereIsNone)
{
    EXPECT_EQ(_acl_create(nullptr, 1), nullptr);
    EXPECT_EQ(_acl_create(file.c_str(), 0), nullptr);
    EXPECT_FALSE(std::filesystem::exists(file));
    EXPECT_EQ(_acl_create((temp / "no/such/directory").c_str(), 1), nullptr);
    write_file(temp / "plain", "");
    EXPECT_EQ(_acl_create((temp / "plain/below").c_str(), 1), nullptr) << "not a missing file";
}

TEST_F(AccessList, AMissingFileIsMadeOnDemand)
{
    list = _acl_create(file.c_str(), 1);
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(entries(), "");
    EXPECT_EQ(read_file(file), "");
    EXPECT_TRUE(std::filesystem::exists(file));
}

TEST_F(AccessList, WhatCanNotBeReadIsNoList)
{
    EXPECT_EQ(_acl_create(temp.path.c_str(), 0), nullptr);
    EXPECT_EQ(_acl_create(temp.path.c_str(), 1), nullptr);
}

TEST_F(AccessList, TheFileIsClosedWhateverComesOfIt)
{
    int before = next_descriptor();
    ASSERT_NE(load("10.1.2.3\n10.1.2.4\n"), nullptr);
    EXPECT_EQ(next_descriptor(), before);
    for (int nth = 1; nth <= 3; nth++) {
        faults::fail_allocation(nth);
        acl *loaded = _acl_create(file.c_str(), 0);
        faults::disarm_allocations();
        _acl_destroy(loaded);
        EXPECT_EQ(next_descriptor(), before) << nth;
    }
    EXPECT_EQ(_acl_create(temp.path.c_str(), 1), nullptr);
    EXPECT_EQ(_acl_add_to_file(file.c_str(), "10.1.2.5", 32), 1);
    EXPECT_EQ(_acl_add_to_file("/dev/full", "10.1.2.5", 32), -1);
    EXPECT_EQ(next_descriptor(), before);
}

TEST_F(AccessList, EachAllocationThatFailsGivesNone)
{
    write_file(file, "10.1.2.3\n10.1.2.4\n");
    free(_header_msg_make(1, 0));  // what the log needs is there from now on
    int failures = 0;
    for (int nth = 1;; nth++) {
        faults::fail_allocation(nth);
        acl *loaded = _acl_create(file.c_str(), 0);
        faults::disarm_allocations();
        if (!faults::allocation_failed()) {
            EXPECT_NE(loaded, nullptr);
            _acl_destroy(loaded);
            break;
        }
        failures++;
        EXPECT_EQ(loaded, nullptr) << nth;
    }
    EXPECT_EQ(failures, 3);
    EXPECT_TRUE(log.has("(E) CLI 0001 memory allocation error : size = 24 [COM0051]")) << log.text();
    EXPECT_TRUE(log.has("(E) CLI 0001 memory allocation error : size = 24 [COM0052]")) << log.text();
}

TEST_F(AccessList, AddingKeepsTheNetworkOnce)
{
    ASSERT_NE(load(""), nullptr);
    EXPECT_EQ(_acl_add(list, ip("10.1.2.3"), 8), 1);
    EXPECT_EQ(_acl_add(list, ip("10.9.9.9"), 8), 0);
    EXPECT_EQ(_acl_add(list, ip("10.9.9.9"), 32), 1);
    EXPECT_EQ(_acl_add(list, ip("1.2.3.4"), 0), 1);
    EXPECT_EQ(_acl_add(list, 0, 0), 0);
    EXPECT_EQ(entries(), "10.0.0.0/8 10.9.9.9/32 0.0.0.0/0");
}

TEST_F(AccessList, WhatNoListCanHoldIsRefused)
{
    ASSERT_NE(load("10.1.2.3\n"), nullptr);
    for (auto *change : {_acl_add, _acl_del}) {
        EXPECT_EQ(change(nullptr, ip("10.1.2.3"), 32), -1);
        EXPECT_EQ(change(list, 0xffffffff, 32), -1);
        EXPECT_EQ(change(list, 0xffffffff, 0), -1);
        for (int mask : {-1, 33, INT32_MIN, INT32_MAX})
            EXPECT_EQ(change(list, ip("10.1.2.3"), mask), -1);
    }
    EXPECT_EQ(entries(), "10.1.2.3/32");
}

TEST_F(AccessList, DeletingKeepsOrderAndTail)
{
    ASSERT_NE(load("10.0.0.1\n10.0.0.2\n10.0.0.3\n10.0.0.4\n"), nullptr);
    EXPECT_EQ(_acl_del(list, ip("10.0.0.4"), 32), 1);
    EXPECT_EQ(entries(), "10.0.0.1/32 10.0.0.2/32 10.0.0.3/32");
    EXPECT_EQ(_acl_del(list, ip("10.0.0.2"), 32), 1);
    EXPECT_EQ(entries(), "10.0.0.1/32 10.0.0.3/32");
    EXPECT_EQ(_acl_del(list, ip("10.0.0.2"), 32), 0);
    EXPECT_EQ(_acl_del(list, ip("10.0.0.1"), 31), 0);
    EXPECT_EQ(_acl_add(list, ip("10.0.0.9"), 24), 1);
    EXPECT_EQ(_acl_del(list, ip("10.0.0.1"), 32), 1);
    EXPECT_EQ(entries(), "10.0.0.3/32 10.0.0.0/24");
    EXPECT_EQ(_acl_del(list, ip("10.0.0.77"), 24), 1) << "the address is masked as in an addition";
    EXPECT_EQ(_acl_del(list, ip("10.0.0.3"), 32), 1);
    EXPECT_EQ(entries(), "");
    EXPECT_EQ(_acl_add(list, ip("10.0.0.9"), 24), 1);
    EXPECT_EQ(entries(), "10.0.0.0/24");
}

TEST_F(AccessList, SearchingGoesByThePrefix)
{
    ASSERT_NE(load("10.1.0.0/16\n192.168.1.129/25\n"), nullptr);
    const struct {
        const char *address;
        int found;
    } cases[] = {{"10.1.0.0", 1},      {"10.1.255.255", 1},  {"10.2.0.0", 0},      {"10.0.255.255", 0},
                 {"192.168.1.128", 1}, {"192.168.1.127", 0}, {"192.168.1.255", 1}, {"0.0.0.0", 0}};
    for (const auto &row : cases)
        EXPECT_EQ(_acl_search(list, ip(row.address)), row.found) << row.address;
    EXPECT_EQ(_acl_search(nullptr, ip("10.1.0.0")), 0);
}

TEST_F(AccessList, AnEntryWithoutAPrefixCoversNothing)
{
    ASSERT_NE(load("10.1.0.0/16\n"), nullptr);
    for (int mask : {-1, 33, INT32_MIN}) {
        list->head->mask = mask;
        EXPECT_EQ(_acl_search(list, ip("10.1.0.0")), 0);
    }
}

TEST_F(AccessList, AdditionsToTheFileAreReadBack)
{
    EXPECT_EQ(_acl_add_to_file(file.c_str(), "10.1.2.3", 24), 1);
    EXPECT_EQ(_acl_add_to_file(file.c_str(), "10.7.7.7", 0), 1);
    list = _acl_create(file.c_str(), 0);
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(entries(), "10.1.2.0/24 10.7.7.7/32");
}

TEST_F(AccessList, AnAdditionIsACommentAndALine)
{
    setenv("TZ", "XYZ-5", 1);  // the comment tells local time
    write_file(file, "10.0.0.1");
    time_t before = time(nullptr);
    ASSERT_EQ(_acl_add_to_file(file.c_str(), "10.1.2.3", 32), 1);
    ASSERT_EQ(_acl_add_to_file(file.c_str(), "10.7.7.7", 0), 1);
    time_t after = time(nullptr);
    std::vector<std::string> possible;
    for (time_t first = before; first <= after; first++)
        for (time_t second = first; second <= after; second++) {
            std::string text = std::string("10.0.0.1\n#added by system, ") + ctime(&first) + "10.1.2.3/32";
            possible.push_back(text + "\n#added by system, " + ctime(&second) + "10.7.7.7");
        }
    EXPECT_NE(std::find(possible.begin(), possible.end(), read_file(file)), possible.end()) << read_file(file);
}

TEST_F(AccessList, AdditionsThatCanNotBeMadeAreRefused)
{
    EXPECT_EQ(_acl_add_to_file(nullptr, "10.1.2.3", 24), -1);
    EXPECT_EQ(_acl_add_to_file(file.c_str(), nullptr, 24), -1);
    EXPECT_EQ(_acl_add_to_file(file.c_str(), "10.1.2.3", -1), -1);
    EXPECT_EQ(_acl_add_to_file(file.c_str(), "10.1.2.3", 33), -1);
    EXPECT_EQ(_acl_add_to_file(file.c_str(), "10.1.2.3\nall", 24), -1) << "it would be two entries";
    EXPECT_FALSE(std::filesystem::exists(file));
    EXPECT_EQ(_acl_add_to_file((temp / "no/such/directory").c_str(), "10.1.2.3", 24), -1);
    EXPECT_EQ(_acl_add_to_file("/dev/full", "10.1.2.3", 24), -1);
}

TEST_F(AccessList, NothingIsTakenOutOfAFile)
{
    write_file(file, "10.1.2.3\n");
    EXPECT_EQ(_acl_del_from_file(file.c_str(), "10.1.2.3", 32), -1);
    EXPECT_EQ(read_file(file), "10.1.2.3\n");
}

TEST(AccessListEnd, TakesNullToo)
{
    EXPECT_EQ(_acl_destroy(nullptr), 1);
}

}
