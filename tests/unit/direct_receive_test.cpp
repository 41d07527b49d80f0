/* The write callback of the direct send, and the send's simple form. */
#include "tests/support/direct_fixture.h"

using namespace test;

namespace
{

const char SIMPLE[] = "Qelvo_SyncSendStrByHttp";
const char NO_BUFFER[] = "[Error] RecvBuf is null\n";
const char CHUNK[] = " UsrBuflen:%u, dwCurDataLen %u, dwMaxRecvLen %u\n";

const char URL[] = "http://127.0.0.1:1/y";
const char BODY[] = "{\"b\":2}";

using DirectReceive = DirectTest;

class DirectSimple : public DirectTest
{
  protected:
    uint32_t length = 16;
};

} // namespace

/* --- the write callback ------------------------------------------------------------------------ */

TEST_F(DirectReceive, WithoutDataRecordOrLengthPrintsToStandardOutput)
{
    char data[] = "data";
    size_t taken[4] = {9, 9, 9, 9};
    const std::string printed = StandardOutputOf([&] {
        taken[0] = Qelvo_Receive_Data(nullptr, 1, 4, &param);
        taken[1] = Qelvo_Receive_Data(data, 1, 4, nullptr);
        taken[2] = Qelvo_Receive_Data(data, 0, 4, &param);
        taken[3] = Qelvo_Receive_Data(data, 1, 0, &param);
    });
    EXPECT_EQ(printed, "pBuf is null\npBuf is null\npBuf is null\npBuf is null\n");
    for (const size_t each : taken) {
        EXPECT_EQ(each, 0U);
    }
    EXPECT_EQ(fake::Transcript(), "");
    EXPECT_EQ(param.dwRecvLen, 0U);
}

TEST_F(DirectReceive, NeedsABufferAndItsCapacity)
{
    char data[] = "data";
    param.dwMaxRecvLen = 0;
    EXPECT_EQ(Qelvo_Receive_Data(data, 1, 4, &param), 0U);
    ExpectLines({Error(RECEIVE, NO_BUFFER)});
    EXPECT_EQ(received[0], '#');
    param.dwMaxRecvLen = 16;
    param.pchRecvBuf = nullptr;
    EXPECT_EQ(Qelvo_Receive_Data(data, 1, 4, &param), 0U);
    ExpectLines({Error(RECEIVE, NO_BUFFER)});
}

TEST_F(DirectReceive, AppendsAndCountsUpToTheLastByte)
{
    char data[] = "abcdef";
    param.dwRecvLen = 2;
    EXPECT_EQ(Qelvo_Receive_Data(data, 2, 3, &param), 6U);
    EXPECT_EQ(param.dwRecvLen, 8U);
    EXPECT_EQ(Buffer(10), "##abcdef##");
    ExpectLinesOf(RECEIVE,
                  {Info(RECEIVE, CHUNK, 2U, 6U, 16U), Info(RECEIVE, " receive_data CountLen:%u [CurLen:%d]\n", 8U, 6)});
    char rest[] = "01234567";
    EXPECT_EQ(Qelvo_Receive_Data(rest, 1, 8, &param), 8U);
    EXPECT_EQ(Buffer(17), "##abcdef01234567#") << "full to its last byte";
}

TEST_F(DirectReceive, KeepsNothingOfAChunkThatDoesNotFit)
{
    char data[] = "0123456789abcdefg";
    EXPECT_EQ(Qelvo_Receive_Data(data, 1, 17, &param), 0U);
    ExpectLinesOf(RECEIVE, {Info(RECEIVE, CHUNK, 0U, 17U, 16U), Overflown(16, 0, 17)});
    EXPECT_EQ(param.dwRecvLen, 0U);
    EXPECT_EQ(Buffer(), std::string(sizeof received, '#'));
}

/* 0xFFFFFFFC + 8 is 4 in 32 bits, which would fit. */
TEST_F(DirectReceive, IsNotDeceivedByAPositionNearTheEndOfItsType)
{
    char data[] = "12345678";
    param.dwRecvLen = 0xFFFFFFFCU;
    EXPECT_EQ(Qelvo_Receive_Data(data, 1, 8, &param), 0U);
    ExpectLine(Overflown(16, 4294967292U, 8));
    EXPECT_EQ(param.dwRecvLen, 0xFFFFFFFCU);
}

/* --- the simple form --------------------------------------------------------------------------- */

TEST_F(DirectSimple, NeedsUrlAndBodyBeforeItStartsTheModule)
{
    EXPECT_EQ(Qelvo_SyncSendStrByHttp(nullptr, BODY, 2, 1000, received, &length), 1U);
    ExpectLines({TwoNull(SIMPLE)});
    EXPECT_EQ(Qelvo_SyncSendStrByHttp(URL, nullptr, 2, 1000, received, &length), 1U);
    ExpectLines({TwoNull(SIMPLE)});
    EXPECT_EQ(g_bInited, 0U);
    EXPECT_EQ(length, 16U);
}

TEST_F(DirectSimple, FillsTheRecord)
{
    TSendByCurlParam seen = {};
    hooks::easy_perform = [&](CURL *) {
        seen = *reinterpret_cast<const TSendByCurlParam *>(ValueOf(CURLOPT_WRITEDATA));
        return CURLE_OK;
    };
    EXPECT_EQ(Qelvo_SyncSendStrByHttp(URL, BODY, 5, 4321, received, &length), 0U);
    EXPECT_EQ(seen.pchURL, URL);
    EXPECT_EQ(seen.eHeadType, 0U);
    EXPECT_EQ(seen.pchSendBuf, BODY);
    EXPECT_EQ(seen.dwSendLen, 5U);
    EXPECT_EQ(seen.dwConnTimeOutMS, 4321U);
    EXPECT_EQ(seen.dwTimeoutMS, 4321U);
    EXPECT_EQ(seen.dwMaxRecvLen, 16U);
    EXPECT_EQ(seen.bSSLserver, 0U);
    EXPECT_EQ(seen.pchRecvBuf, received);
    EXPECT_EQ(seen.dwRecvLen, 0U);
    EXPECT_EQ(seen.pfNtf, nullptr);
    EXPECT_EQ(seen.bCurlAuth, 0U);
    EXPECT_EQ(std::string(seen.achUserAndPassWd, sizeof seen.achUserAndPassWd),
              std::string(sizeof seen.achUserAndPassWd, '\0'));
    EXPECT_EQ(hooks::OptionOrder(), FULL_ORDER);
}

TEST_F(DirectSimple, ReturnsTheLengthReceivedUnlessTheTransferFails)
{
    AnswerWith({200, {"half"}, CURLE_PARTIAL_FILE});
    EXPECT_EQ(Qelvo_SyncSendStrByHttp(URL, BODY, 2, 1000, received, &length), 5U);
    EXPECT_EQ(length, 16U);
    AnswerWith({200, {"hello"}, CURLE_OK});
    EXPECT_EQ(Qelvo_SyncSendStrByHttp(URL, BODY, 2, 1000, received, &length), 0U);
    EXPECT_EQ(length, 5U);
    EXPECT_STREQ(received, "hello");
}

TEST_F(DirectSimple, CollectsNothingWithoutLengthOrBuffer)
{
    AnswerWith({200, {"hello"}, CURLE_OK});
    EXPECT_EQ(Qelvo_SyncSendStrByHttp(URL, BODY, 2, 1000, received, nullptr), 0U);
    EXPECT_EQ(hooks::OptionOrder(), FullOrderWithout(WRITE_OPTIONS));
    EXPECT_EQ(Buffer(), std::string(sizeof received, '#'));
    ExpectLine(Info(EXT, RECEIVED_NOWHERE, 0U));
    EXPECT_EQ(fake::CountTexts("dwMaxRecvLen 0\n"), 1U);
    hooks::ClearOptions();
    EXPECT_EQ(Qelvo_SyncSendStrByHttp(URL, BODY, 2, 1000, nullptr, &length), 0U);
    EXPECT_EQ(hooks::OptionOrder(), FullOrderWithout(WRITE_OPTIONS));
    EXPECT_EQ(length, 0U);
}
