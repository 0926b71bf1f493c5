// Blocks of about 2 GiB, which qCompress() cannot take. The tests take up to 5 GiB of memory.

#include "data/ZebDataBlock.h"
#include "data/ZebDataReference.h"
#include "hash/ZebHashManager.h"
#include "io/ZebDataBlockWriteRequest.h"
#include "support/BlockFiles.h"
#include "support/Manager.h"
#include "support/StoreInside.h"
#include "support/TemporaryStore.h"

#include <QByteArray>
#include <QFileInfo>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <cstring>
#include <memory>

namespace {

// qCompress() fails from 2126221393 bytes on.
constexpr int s_Bytes = 2130000000;

// Bytes that compress well: pages of one letter, each with its number.
constexpr int s_PageBytes = 4096;

void fillPage(char* page, int bytes, int number)
{
    std::memset(page, 'a' + number % 26, static_cast<size_t>(bytes));
    if (bytes >= static_cast<int>(sizeof number))
        std::memcpy(page, &number, sizeof number);
}

template <typename Action>
void forEachPage(Action action)
{
    for (int begin = 0, number = 0; begin < s_Bytes; begin += s_PageBytes, ++number)
        action(begin, qMin(s_PageBytes, s_Bytes - begin), number);
}

QByteArray pages()
{
    QByteArray bytes(s_Bytes, Qt::Uninitialized);
    char* const data = bytes.data();
    forEachPage([data](int begin, int size, int number) { fillPage(data + begin, size, number); });
    return bytes;
}

bool arePages(const unsigned char* data, qint64 size)
{
    bool isEqual = size == s_Bytes;
    if (isEqual) {
        forEachPage([&](int begin, int bytes, int number) {
            char expected[s_PageBytes];
            fillPage(expected, bytes, number);
            isEqual =
                isEqual && std::memcmp(data + begin, expected, static_cast<size_t>(bytes)) == 0;
        });
    }
    return isEqual;
}

} // namespace

TEST(LargeBlockHeavy, ABlockThatQtCannotCompressIsWrittenAndReadBack)
{
    for (const int workers : {0, 1}) {
        TemporaryStore::Options options;
        options.m_Memory = 3000000000;
        options.m_CompressionThreads = workers;
        TemporaryStore store(options);
        const ZebDataReference reference =
            manager().addBlock(pages(), ZebModifyAccessor::Cached, true);
        manager().flush();
        EXPECT_EQ(StoreInside::writesHandled(), 1);
        manager().freeAllBlocks();
        EXPECT_FALSE(reference.isInMemory());
        const ZebConstAccessor accessor = reference.constAccessor();
        ASSERT_FALSE(accessor.isNull());
        EXPECT_TRUE(arePages(accessor.data(), accessor.size()));
    }
}

TEST(LargeBlockHeavy, AHostCanCompressABlockThatQtCannot)
{
    auto block = std::make_unique<ZebDataBlock>(pages());
    ASSERT_TRUE(block->compress(1));
    EXPECT_TRUE(block->isCompressed());
    EXPECT_EQ(block->size(), s_Bytes);
    ASSERT_TRUE(block->uncompress());
    EXPECT_TRUE(arePages(block->constData(), block->size()));
}

TEST(LargeBlockHeavy, APayloadOfMoreThanAnArrayHoldsIsAFailedWrite)
{
    // Without compression it grows by five bytes in each 16 KiB.
    constexpr int bytes = 2147000000;
    const MessageCapture messages;
    const QTemporaryDir directory;
    const auto hash = ZebHashManager::instance().getHash(QByteArray("does not compress"));
    const auto block = std::make_unique<ZebDataBlock>(BlockFiles::incompressible(bytes));
    ZebDataBlockWriteRequest request(hash, block.get(), false);
    request.setFileName(directory.path(), QString(), 1);
    const QString path = BlockFiles::pathOf(*hash, directory.path(), QString(), 1);
    QString error;
    EXPECT_EQ(request.write(&error), 0);
    EXPECT_EQ(error, "Cannot Compress Data for File " + path + " : 'Larger than 2 GiB'");
    EXPECT_FALSE(block->cached());
    EXPECT_FALSE(QFileInfo::exists(path));
}
