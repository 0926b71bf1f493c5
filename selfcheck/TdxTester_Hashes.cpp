// The checks of the priority list, of the reference-counting pointer, and of hashes and their
// registry.

#include "selfcheck/TdxTester.h"

#include "hash/ZebDataHash.h"
#include "hash/ZebHashManager.h"
#include "hash/ZebSmartPointer.h"
#include "io/ZebPriorityList.h"
#include "manager/ZebDataBlockManager.h"
#include "selfcheck/ZebByteChain.h"
#include "selfcheck/ZebSelfCheck.h"
#include "selfcheck/ZebSelfCheckFrame.h"
#include "selfcheck/ZebSelfCheckStore.h"
#include "selfcheck/ZebSharedRandom.h"

#include <QElapsedTimer>
#include <QFuture>
#include <QPair>
#include <QStringList>
#include <QVector>
#include <QtConcurrent>

#include <vector>

using ZebSelfCheck::failure;
using ZebSelfCheck::line;

namespace {

constexpr int s_LargeBytes = 20 * 1024 * 1024;
constexpr int s_RoundTrips = 10000;

constexpr int s_RegistryRounds = 2000;
constexpr int s_RegistryBytes = 256 * 1024;

using Days = QVector<QPair<QString, int>>;

// The names in the order in which the list returns them.
QStringList inPriorityOrder(const Days& days)
{
    ZebPriorityList<QString> list;
    for (const QPair<QString, int>& day : days)
        list.insert(day.second, day.first);
    QStringList order;
    while (!list.isEmpty())
        order.append(list.takeFirst());
    return order;
}

// Each byte is its index modulo 255.
QByteArray largeBuffer()
{
    constexpr int modulus = 255;
    QByteArray bytes(s_LargeBytes, Qt::Uninitialized);
    char* const data = bytes.data();
    for (int i = 0; i < s_LargeBytes; ++i)
        data[i] = static_cast<char>(i % modulus);
    return bytes;
}

bool roundTrips(const ZebDataHash& hash)
{
    QElapsedTimer timer;
    timer.start();
    for (int round = 0; round < s_RoundTrips; ++round) {
        const ZebDataHash back(hash.toString());
        if (back != hash)
            return false;
    }
    line("ToString at %.2f per second", ZebSelfCheck::perSecond(s_RoundTrips, timer.elapsed()));
    return true;
}

bool hashWorks(const QByteArray& bytes, ZebDataHash::Size size, const char* title)
{
    const auto* const data = reinterpret_cast<const unsigned char*>(bytes.constData());
    QElapsedTimer timer;
    timer.start();
    const ZebDataHash hash(data, bytes.size(), size);
    const qint64 elapsed = timer.elapsed();
    line("%s - %s\n", title, qUtf8Printable(hash.toString()));
    if (!roundTrips(hash))
        return false;
    const double megabytes = ZebSelfCheck::megabytes(bytes.size());
    line("Hash %.2fMb at %.2fMbs per second", megabytes,
         ZebSelfCheck::perSecond(megabytes, elapsed));
    if (ZebDataHash(bytes, size) != hash)
        return failure("Failed From Array Test");
    return true;
}

bool userIdWorks(const QByteArray& bytes)
{
    constexpr int id = 2;
    ZebDataHash hash(bytes, ZebDataHash::Hash512);
    if (hash.userId() != 0)
        return failure("User id is not 0 it is %d", hash.userId());
    hash.setUserId(id);
    if (hash.userId() != id)
        return failure("User id is not 2 it is %d", hash.userId());
    const ZebDataHash copy(hash);
    if (copy.userId() != id)
        return failure("User id is not 2 it is %d", copy.userId());
    return true;
}

// One of the two concurrent tasks that intern hashes; returns the bytes processed.
qint64 internHashes(bool byText)
{
    // Held until the end, so that later rounds find the hashes of earlier rounds.
    std::vector<ZebSmartPointer<ZebDataHash>> held;
    held.reserve(s_RegistryRounds);
    qint64 processed = 0;
    auto seed = static_cast<quint32>(ZebSharedRandom::value());
    for (int round = 0; round < s_RegistryRounds; ++round) {
        const unsigned char byte = ZebByteChain(seed).nextByte();
        seed = byte;
        QByteArray buffer(s_RegistryBytes, static_cast<char>(byte));
        auto* const data = reinterpret_cast<unsigned char*>(buffer.data());
        if (byText) {
            const ZebDataHash hash(data, buffer.size(), ZebDataHash::Hash512);
            held.push_back(ZebHashManager::instance().getHash(hash.toString()));
        } else {
            held.push_back(ZebHashManager::instance().getHash(data, buffer.size()));
        }
        processed += buffer.size();
    }
    return processed;
}

// Looks a hash up by its bytes and by its text, then drops the references one by one.
bool internsOnce()
{
    QByteArray bytes = largeBuffer();
    auto* const data = reinterpret_cast<unsigned char*>(bytes.data());
    ZebHashManager& registry = ZebHashManager::instance();
    ZebSmartPointer<ZebDataHash> one = registry.getHash(data, bytes.size());
    if (one.isNull())
        return false;
    TdxTester::tdxLog("Ptr One Is Not NULL %p %d", static_cast<void*>(one.data()), one->refCount());
    ZebSmartPointer<ZebDataHash> two = registry.getHash(data, bytes.size());
    if (two != one)
        return false;
    TdxTester::tdxLog("Ptr Two Is Equal to Ptr One %p %d", static_cast<void*>(two.data()),
                      two->refCount());
    ZebSmartPointer<ZebDataHash> three = registry.getHash(one->toString());
    if (three != one)
        return false;
    TdxTester::tdxLog("Ptr Three Is Equal to Ptr One %d", three->refCount());
    ZebSmartPointer<ZebDataHash> four = three;
    one = nullptr;
    TdxTester::tdxLog("Ptr One set to zero");
    two = nullptr;
    TdxTester::tdxLog("Ptr Two set to zero");
    three = nullptr;
    TdxTester::tdxLog("Ptr Three set to zero");
    four = nullptr;
    TdxTester::tdxLog("Ptr Four set to zero");
    return true;
}

} // namespace

bool TdxTester::testPriorityList()
{
    line("[ -- ] Starting Priority Queue Test");
    const Days byDay = {{"Friday", 4},   {"Wednesday", 2}, {"Monday", 0}, {"Saturday", 5},
                        {"Thursday", 3}, {"Sunday", 6},    {"Tuesday", 1}};
    const QStringList calendar = {"Monday", "Tuesday",  "Wednesday", "Thursday",
                                  "Friday", "Saturday", "Sunday"};
    if (inPriorityOrder(byDay) != calendar)
        return false;
    const Days byUrgency = {{"Friday", 0},   {"Wednesday", 1}, {"Monday", 0}, {"Saturday", 1},
                            {"Thursday", 1}, {"Sunday", 2},    {"Tuesday", 0}};
    const QStringList firstCome = {"Friday",   "Monday",   "Tuesday", "Wednesday",
                                   "Saturday", "Thursday", "Sunday"};
    if (inPriorityOrder(byUrgency) != firstCome)
        return false;
    line("[ OK ] Passed Priority Queue Test");
    return true;
}

bool TdxTester::testSmartPointers()
{
    line("[ -- ] Start Smart Pointer Test");
    const int before = ZebDataHash::hashCount();
    {
        ZebSmartPointer<ZebDataHash> first(
            new ZebDataHash(QByteArray("smart pointer"), ZebDataHash::Hash512));
        ZebSmartPointer<ZebDataHash> second(first);
        ZebSmartPointer<ZebDataHash> third;
        third = second;
        if (second != first || third != first || third->refCount() != 3)
            return failure("Pointers are not Equal 3");
        first = nullptr;
        second = nullptr;
        third = nullptr;
        if (ZebDataHash::hashCount() != before)
            return failure("Hash Count is Not Zero");
    }
    // Kept on purpose: the check above has already found any difference.
    if (ZebDataHash::hashCount() != before)
        return failure("Mismatch is Num hahses");
    line("[ OK ] Smart Pointer Test Passed");
    return true;
}

bool TdxTester::testHashes()
{
    line("[ -- ] Starting Hash Tests");
    const QByteArray bytes = largeBuffer();
    if (!hashWorks(bytes, ZebDataHash::Hash256, "256") ||
        !hashWorks(bytes, ZebDataHash::Hash512, "512") ||
        !hashWorks(bytes, ZebDataHash::Hash1024, "1024") || !userIdWorks(bytes))
        return false;
    line("[ OK ] Passed Hash Tests");
    return true;
}

bool TdxTester::testHashManagerSingleThreaded()
{
    // No roots: hashes need no disk.
    ZebSelfCheckFrame frame = {"[ -- ] Started Single Threaded Hash Manager tests",
                               "[ OK ] Passed Single Threaded Hash Manager tests"};
    frame.m_MemoryBytes = ZebByteUnits::s_BytesPerMiB;
    frame.m_NotReadyLine = "Cannot initialize Data Block Manager";
    const auto work = [] {
        if (!internsOnce())
            return false;
        if (m_Logging.load(std::memory_order_relaxed)) {
            ZebHashManager::instance().dumpStats();
            ZebHashManager::instance().clearStats();
        }
        if (!ZebDataBlockManager::instance().isInitialized())
            return failure("Datablock Manager has lost initialization");
        return true;
    };
    return frame.run(work, [] {
        if (ZebDataBlockManager::instance().isInitialized())
            return failure("Cleanup has not deinitializer data block manager");
        return true;
    });
}

bool TdxTester::testHashManagerMultiThreaded()
{
    line("[ -- ] Start hash Manager Multi Threaded");
    QElapsedTimer timer;
    timer.start();
    QFuture<qint64> byBytes = QtConcurrent::run(&internHashes, false);
    QFuture<qint64> byText = QtConcurrent::run(&internHashes, true);
    const double megabytes = ZebSelfCheck::megabytes(byBytes.result() + byText.result());
    const qint64 elapsed = timer.elapsed();
    line("Processed %.2fMb in %.2fs at %.2fMbs", megabytes, ZebSelfCheck::seconds(elapsed),
         ZebSelfCheck::perSecond(megabytes, elapsed));
    line("Num Hashes Left %d", ZebDataHash::hashCount());
    line("[ OK ] Passed hash Manager Multi Threaded");
    return true;
}
