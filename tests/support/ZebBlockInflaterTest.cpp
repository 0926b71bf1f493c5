#include "support/ZebBlockInflater.h"

#include <QByteArray>

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

namespace {

using State = ZebBlockInflater::State;

// Without the length that Qt puts in front.
QByteArray streamOf(const QByteArray& content)
{
    return qCompress(content).mid(4);
}

State feedInPieces(ZebBlockInflater& inflater, const QByteArray& stream, int piece)
{
    State state = State::Hungry;
    for (int at = 0; at < stream.size() && state == State::Hungry; at += piece)
        state = inflater.feed(stream.constData() + at, std::min(piece, stream.size() - at));
    return state;
}

std::string decompressed(const QByteArray& content, int piece)
{
    ZebBlockInflater inflater;
    std::string out(static_cast<std::size_t>(content.size()) + 1, '\0');
    inflater.begin(reinterpret_cast<unsigned char*>(out.data()), static_cast<qint64>(out.size()));
    EXPECT_EQ(feedInPieces(inflater, streamOf(content), piece), State::Ended);
    out.resize(static_cast<std::size_t>(inflater.produced()));
    return out;
}

} // namespace

TEST(ZebBlockInflater, GivesTheBytesWhateverThePieces)
{
    QByteArray content;
    for (int i = 0; i < 5000; ++i)
        content += QByteArray::number(i * i);
    for (const int piece : {1, 7, 1000, 1000000})
        EXPECT_EQ(decompressed(content, piece), content.toStdString()) << piece;
}

TEST(ZebBlockInflater, StopsAtTheEndOfItsMemory)
{
    constexpr int room = 1000;
    const QByteArray bomb = streamOf(QByteArray(10 * 1024 * 1024, '\0'));
    ZebBlockInflater inflater;
    std::string out(room + 8, '#');
    inflater.begin(reinterpret_cast<unsigned char*>(out.data()), room);
    EXPECT_EQ(feedInPieces(inflater, bomb, 100), State::Full);
    EXPECT_EQ(inflater.produced(), room);
    EXPECT_EQ(out.substr(room), "########");
}

TEST(ZebBlockInflater, DistinguishesDamageFromAMissingEnd)
{
    unsigned char out[100];
    const QByteArray stream = streamOf("some bytes");
    ZebBlockInflater inflater;
    inflater.begin(out, sizeof out);
    EXPECT_EQ(inflater.feed(stream.constData(), stream.size() - 1), State::Hungry);
    QByteArray damaged = stream;
    damaged[damaged.size() - 1] = static_cast<char>(damaged[damaged.size() - 1] ^ 1);
    inflater.begin(out, sizeof out);
    EXPECT_EQ(inflater.feed(damaged.constData(), damaged.size()), State::Broken);
    EXPECT_EQ(inflater.reason(), "incorrect data check");
    inflater.begin(out, sizeof out);
    EXPECT_EQ(inflater.feed("no stream", 9), State::Broken);
    EXPECT_FALSE(inflater.reason().empty());
}

TEST(ZebBlockInflater, LeavesBytesAfterTheEnd)
{
    unsigned char out[100];
    const QByteArray stream = streamOf("some bytes") + "behind";
    ZebBlockInflater inflater;
    inflater.begin(out, sizeof out);
    EXPECT_EQ(inflater.feed(stream.constData(), stream.size()), State::Ended);
    EXPECT_EQ(inflater.unused(), 6);
}

TEST(ZebBlockInflater, ContinuesAFullStreamInOtherMemory)
{
    const QByteArray content(100000, 'a');
    const QByteArray stream = streamOf(content);
    ZebBlockInflater inflater;
    std::string out(1000, '\0');
    auto* const memory = reinterpret_cast<unsigned char*>(out.data());
    inflater.begin(memory, 1000);
    State state = inflater.feed(stream.constData(), stream.size());
    int resumed = 0;
    while (state == State::Full) {
        EXPECT_EQ(out, std::string(1000, 'a'));
        out.assign(1000, '\0');
        state = inflater.resume(memory, 1000);
        ++resumed;
    }
    EXPECT_EQ(state, State::Ended);
    EXPECT_GE(resumed, 99);
    EXPECT_EQ(inflater.produced(), content.size());
}
