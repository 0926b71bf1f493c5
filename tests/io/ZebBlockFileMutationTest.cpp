// Good block files, changed at random: whatever changes what a reader gets must be found, and a
// good file must never be.

#include "io/ZebBlockFileChecker.h"

#include "hash/ZebBlockName.h"
#include "io/ZebMemoryBudget.h"

#include "support/BlockBytes.h"
#include "support/TemporaryTree.h"

#include <QString>
#include <QtGlobal>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <iostream>
#include <optional>
#include <random>
#include <string>
#include <utility>

namespace {

constexpr qint64 s_Largest = 16LL * 1024 * 1024;

struct Good
{
    QByteArray m_Content;
    std::string m_File;
};

// What a reader of the store makes of a file: nothing where it gives up, else the block.
std::optional<QByteArray> readAsTheStoreDoes(const std::string& file)
{
    if (file.size() < 12)
        return std::nullopt;
    qint32 length = 0;
    std::memcpy(&length, file.data() + 8, sizeof length);
    if (length < 0 || static_cast<std::size_t>(length) > file.size() - 12)
        return std::nullopt;
    return qUncompress(QByteArray(file.data() + 12, length));
}

class Mutations
{
public:
    explicit Mutations(unsigned int seed) : m_Random(seed) {}

    Good good()
    {
        Good good;
        const std::size_t size = m_Random() % 4000;
        std::string bytes(size, '\0');
        // From all alike to all random.
        const unsigned int range = 1U + m_Random() % 256U;
        for (char& byte : bytes)
            byte = static_cast<char>(m_Random() % range);
        good.m_Content = QByteArray::fromStdString(bytes);
        good.m_File = blockFileOf(good.m_Content);
        return good;
    }

    std::string change(std::string file, const std::string& other)
    {
        switch (m_Random() % 8) {
        case 0: // flipped bits
            for (std::size_t i = 1 + m_Random() % 4; i > 0; --i)
                flip(file, place(file));
            break;
        case 1: // the header is where it hurts most
            flip(file, m_Random() % std::min<std::size_t>(file.size(), 16));
            break;
        case 2:
            file.resize(m_Random() % file.size());
            break;
        case 3:
            for (std::size_t i = 1 + m_Random() % 20; i > 0; --i)
                file += static_cast<char>(m_Random());
            break;
        case 4: // two bytes change places
            std::swap(file[place(file)], file[place(file)]);
            break;
        case 5: // a run of zeros, as of a hole
        {
            const std::size_t at = place(file);
            const std::size_t length = std::min<std::size_t>(file.size() - at, m_Random() % 512);
            file.replace(at, length, length, '\0');
            break;
        }
        case 6: // the file of another block
            file = other;
            break;
        default: // the head of this one and the rest of another
        {
            const std::size_t at = std::min(place(file), other.size());
            file = file.substr(0, at) + other.substr(at);
        }
        }
        return file;
    }

private:
    std::size_t place(const std::string& file) { return m_Random() % file.size(); }
    void flip(std::string& file, std::size_t at)
    {
        file[at] = static_cast<char>(file[at] ^ (1 << (m_Random() % 8)));
    }

    std::mt19937 m_Random;
};

struct Result
{
    int m_FalseAlarms = 0;
    int m_Changed = 0;
    int m_WrongBytes = 0;
    int m_Found = 0;
    int m_Missed = 0;
};

Result run(int rounds, unsigned int seed)
{
    // What Qt says of each damaged payload.
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString&) {});
    const TemporaryTree tree;
    ZebMemoryBudget budget(s_Largest);
    ZebBlockFileChecker verifier({false, s_Largest, 1024 * 1024}, budget);
    Mutations mutations(seed);
    Result result;
    Good other = mutations.good();
    const std::string path = tree.path("block");
    for (int i = 0; i < rounds; ++i) {
        const Good good = mutations.good();
        const ZebBlockName name = parsedNameOf(good.m_Content);
        tree.file("block", good.m_File);
        if (verifier.check(path, name).m_Finding != ZebBlockFinding::Sound)
            ++result.m_FalseAlarms;
        const std::string changed = mutations.change(good.m_File, other.m_File);
        other = good;
        if (changed == good.m_File)
            continue;
        ++result.m_Changed;
        tree.file("block", changed);
        const ZebBlockVerdict verdict = verifier.check(path, name);
        const std::optional<QByteArray> read = readAsTheStoreDoes(changed);
        if (verdict.m_Finding != ZebBlockFinding::Sound)
            ++result.m_Found;
        if (read && *read == good.m_Content)
            continue;
        ++result.m_WrongBytes;
        // The store treats a truncated file as missing, so it never returns wrong bytes.
        const bool isReported =
            verdict.isDamage() || verdict.m_Finding == ZebBlockFinding::Truncated;
        if (!isReported) {
            ++result.m_Missed;
            ADD_FAILURE() << "round " << i << ": " << verdict.m_Detail;
        }
    }
    std::cout << rounds << " good files, " << result.m_FalseAlarms << " false alarms; "
              << result.m_Changed << " changed, " << result.m_Found << " found; "
              << result.m_WrongBytes << " that read wrongly or not at all, " << result.m_Missed
              << " missed\n";
    return result;
}

} // namespace

TEST(BlockMutation, WhatChangesTheBytesReadIsFoundAndNothingElse)
{
    const Result result = run(3000, 1);
    EXPECT_EQ(result.m_FalseAlarms, 0);
    EXPECT_EQ(result.m_Missed, 0);
    // Most changes do harm; else the test would show nothing.
    EXPECT_GT(result.m_WrongBytes, 2000);
}

// --gtest_also_run_disabled_tests
TEST(BlockMutation, DISABLED_OneHundredThousand)
{
    const Result result = run(110000, 2);
    EXPECT_EQ(result.m_FalseAlarms, 0);
    EXPECT_EQ(result.m_Missed, 0);
    EXPECT_GT(result.m_Changed, 100000);
}
