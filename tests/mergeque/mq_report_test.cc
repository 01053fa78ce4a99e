// The text reports and the time texts, checked against the exact text.
#include <ctime>
#include <string>

#include "mq_fixture.h"

namespace mqtest {
namespace {

// A time stamp of 16 November 2023 at 19:05:13.042 local time.
uint64_t Nov16Stamp() {
    struct tm t {};
    t.tm_year = 123;
    t.tm_mon = 10;
    t.tm_mday = 16;
    t.tm_hour = 19;
    t.tm_min = 5;
    t.tm_sec = 13;
    t.tm_isdst = -1;
    return static_cast<uint64_t>(mktime(&t)) | (uint64_t{42123} << 44);
}

std::string Replace(std::string s, const std::string &from, int value) {
    char num[16];
    snprintf(num, sizeof num, "%4d", value);
    return s.replace(s.find(from), from.size(), num);
}

const char kInfo[] =
    "MQUE-1THD-NAME : rep_q[MQUE]\n"
    "MQUE-1THD-INFO : MemPtNo [   3], DataSize [  56], HashSize [  16], EpFd [{EP}]\n"
    "MQUE-1THD-MONI : HighWater [   9], LowWater [   2], OverLoad [   0]\n"
    "\nMque-1THD StatType                  Count    TimeStamp\n"
    "----------------------------------------------------------\n"
    "MergeQue MaxConflict                    1    11-16 19:05:13.042\n"
    "MergeQue HistoryMaxCnt                  2    --:--:--.---\n"
    "Mque CurrCnt                            1    --:--:--.---\n"
    "MergeQue OverHighWater                  0    --:--:--.---\n"
    "MergeQue UnderLowWater                  0    --:--:--.---\n"
    "\n----------------------------------------------------------\n"
    "Reader-ItemCnt :    1\n"
    "Reader-INFO : EventFd [{EV}/1]\n"
    "\nReader StatType                     Count    TimeStamp\n"
    "----------------------------------------------------------\n"
    "Success Merge                           1    --:--:--.---\n"
    "Fail Merge                              0    --:--:--.---\n"
    "Success Write                           2    --:--:--.---\n"
    "Success Read                            1    --:--:--.---\n"
    "Fail Write                              0    --:--:--.---\n"
    "Fail Read                               0    --:--:--.---\n"
    "Empty Read                              0    --:--:--.---\n"
    "Write Notify Err                        0    --:--:--.---\n"
    "Read Notify Err                         0    --:--:--.---\n"
    "BackPress                               0    --:--:--.---\n"
    "UnBackPress                             0    --:--:--.---\n";

const char kHeader[] = "------------------------\nIndex    MQ-1THD Name    \n------------------------\n";

TEST_F(MqTest, InfoReportOfASmallQueue) {
    ASSERT_NE(Make("rep_q"), nullptr);
    MergeQueMonitorAttr attr{9, 2, 0, [](uint32_t, uint64_t) { return 0u; }};
    QOV_MergeQueMonitorReg(q_, &attr);
    Write(1, 0);
    Write(2, 0);
    Write(2, 1);
    ReadCb(1);
    q_->stat[MQ_STAT_MAX_CONFLICT].stamp = Nov16Stamp();
    q_->stat[MQ_STAT_HISTORY_MAX_CNT].stamp = 0;
    std::string want = Replace(Replace(kInfo, "{EP}", epFd_), "{EV}", q_->reader.eventFd);
    char buf[2048];
    ASSERT_EQ(QOV_PrintMergeQueInfo("rep_q", buf, sizeof buf), want.size());
    EXPECT_EQ(std::string(buf), want);
    buf[0] = 'x';
    EXPECT_EQ(QOV_PrintMergeQueInfo("no_such_q", buf, sizeof buf), 0u);
    EXPECT_EQ(buf[0], 'x');
    // Every piece that fits is written, and nothing beyond the size.
    std::string small(want.size(), '#');
    uint32_t n = QOV_PrintMergeQueInfo("rep_q", small.data(), static_cast<uint32_t>(want.size()));
    EXPECT_EQ(n, want.size() - (sizeof "UnBackPress                             0    --:--:--.---\n" - 1));
    EXPECT_EQ(small.substr(0, n), want.substr(0, n));
    ReadCb(1);
}

TEST_F(MqTest, ListReportInNameOrder) {
    char buf[512];
    EXPECT_EQ(QOV_PrintMergeQueListAll(buf, sizeof buf), sizeof kHeader - 1);
    EXPECT_STREQ(buf, kHeader);
    MergeQueCtrlBlk *qb = Make("q_b");
    ASSERT_NE(Make("q_a"), nullptr);
    QOV_PrintMergeQueListAll(buf, sizeof buf);
    EXPECT_EQ(std::string(buf), std::string(kHeader) + "0        q_a             \n1        q_b             \n");
    // Room for the dashes but not the title: the title is left out, the later dashes are not.
    EXPECT_EQ(QOV_PrintMergeQueListAll(buf, 51), 50u);
    EXPECT_STREQ(buf, "------------------------\n------------------------\n");
    EXPECT_EQ(QOV_PrintMergeQueListAll(nullptr, 10) + QOV_PrintMergeQueListAll(buf, 0), 0u);
    QOV_MergeQueDestory(qb);
}

TEST(MqTimeText, Trans2Time) {
    const struct {
        uint64_t stamp;
        uint32_t size;
        const char *want;
    } cases[] = {
        {Nov16Stamp(), 18, ""},  // one short of the terminator
        {Nov16Stamp() + 1 + (uint64_t{999999 - 42123} << 44), 32, "11-16 19:05:14.999"},
    };
    for (const auto &c : cases) {
        char buf[32] = "junk";
        EXPECT_EQ(QOV_MergeQueTrans2Time(buf, c.size, &c.stamp), buf);
        EXPECT_STREQ(buf, c.want);
    }
}

// The exported tables are indexed by id; the known texts are pinned by the
// info report above.
TEST(MqStatDesc, RowsByIdAndUnknownIds) {
    for (uint32_t id = 0; id < MERGE_QUE_STAT_NUM; ++id) EXPECT_EQ(g_mergeQueStatDesc[id].id, id);
    for (uint32_t id = 0; id < MERGE_QUE_READER_STAT_NUM; ++id) EXPECT_EQ(g_mergeQueReaderStatDesc[id].id, id);
    EXPECT_STREQ(QOV_MergeQueGetStatDesc(MERGE_QUE_STAT_NUM), "MergeQue Unknown Error");
    EXPECT_STREQ(QOV_MergeQueGetReaderStatDesc(MERGE_QUE_READER_STAT_NUM), "MergeQue Reader Unknown Error");
}

}  // namespace
}  // namespace mqtest
