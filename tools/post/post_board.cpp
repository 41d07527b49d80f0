#include "tools/post/post_board.h"

#include <algorithm>
#include <memory>
#include <mutex>

namespace
{

std::mutex s_tLock; /* guards the list of boards and the ends of each */

/* Never destroyed: workers may still notify while the process ends. */
std::vector<TPostBoard *> &Boards()
{
    static auto *patBoards = new std::vector<TPostBoard *>;
    return *patBoards;
}

/* A notification brings nothing but the receive buffer. */
uint32_t OnNotified(ESendByCurlRet eRet, void *pvAnswer)
{
    const CPostClock::time_point tNow = CPostClock::now();
    const char *pchAnswer = static_cast<const char *>(pvAnswer);
    const std::lock_guard<std::mutex> tGuard(s_tLock);
    for (TPostBoard *ptBoard : Boards()) {
        if (AnswerSlabHas(ptBoard->tSlab, pchAnswer)) {
            ptBoard->atEnds.push_back({AnswerSlabIndex(ptBoard->tSlab, pchAnswer), eRet, tNow});
            ptBoard->tNotified.notify_one();
        }
    }
    return 0;
}

} // namespace

TPostBoard *BoardCreate(uint32_t dwPlaces, uint32_t dwMaxAnswer)
{
    auto ptBoard = std::make_unique<TPostBoard>();
    if (!AnswerSlabCreate(ptBoard->tSlab, dwPlaces, dwMaxAnswer)) {
        return nullptr;
    }
    ptBoard->atPlaces.resize(dwPlaces);
    for (uint32_t dwPlace = dwPlaces; dwPlace > 0; dwPlace--) {
        ptBoard->adwFree.push_back(dwPlace - 1);
    }
    const std::lock_guard<std::mutex> tGuard(s_tLock);
    Boards().push_back(ptBoard.get());
    return ptBoard.release();
}

void BoardDestroy(TPostBoard *ptBoard)
{
    if (!BoardIsIdle(*ptBoard)) {
        return;
    }
    const std::lock_guard<std::mutex> tGuard(s_tLock);
    Boards().erase(std::find(Boards().begin(), Boards().end(), ptBoard));
    AnswerSlabDestroy(ptBoard->tSlab);
    delete ptBoard;
}

ESendByCurlRet BoardSubmit(TPostBoard &tBoard, uint32_t dwPost, TSendByCurlParam tParam)
{
    const uint32_t dwPlace = tBoard.adwFree.back();
    tParam.pchRecvBuf = AnswerSlabText(tBoard.tSlab, dwPlace);
    tParam.pfNtf = OnNotified;
    tBoard.atPlaces[dwPlace] = {dwPost, CPostClock::now()};
    const ESendByCurlRet eRet = Qelvo_SendStrByHttp(&tParam, SENDBYCURL_MODE_ASYNC);
    if (eRet == SENDBYCURL_OK) {
        tBoard.adwFree.pop_back();
    }
    return eRet;
}

std::vector<TBoardEnd> BoardTakeEnds(TPostBoard &tBoard, CPostClock::time_point tDeadline)
{
    std::vector<TBoardEnd> atEnds;
    std::unique_lock<std::mutex> tGuard(s_tLock);
    tBoard.tNotified.wait_until(tGuard, tDeadline, [&tBoard] { return !tBoard.atEnds.empty(); });
    atEnds.swap(tBoard.atEnds);
    return atEnds;
}

void BoardFree(TPostBoard &tBoard, uint32_t dwPlace)
{
    AnswerSlabClear(tBoard.tSlab, dwPlace);
    tBoard.adwFree.push_back(dwPlace);
}

bool BoardIsIdle(const TPostBoard &tBoard)
{
    return tBoard.adwFree.size() == tBoard.atPlaces.size();
}
