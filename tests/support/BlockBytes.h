#pragma once

#include "hash/ZebBlockName.h"
#include "hash/ZebDataHash.h"

#include <QByteArray>
#include <QtGlobal>

#include <gtest/gtest.h>

#include <cstring>
#include <optional>
#include <string>

/// The bytes of block files, made without the store.

inline constexpr int s_StoreLevel = 2;

/// The name of the block that holds these bytes.
inline std::string blockNameOf(const QByteArray& content)
{
    return ZebDataHash(content, ZebDataHash::Hash512).toString().toStdString();
}

inline ZebBlockName parsedNameOf(const QByteArray& content)
{
    const std::optional<ZebBlockName> name = ZebBlockName::parse(blockNameOf(content));
    EXPECT_TRUE(name.has_value());
    return name.value_or(ZebBlockName());
}

/// A file with this header and payload, whatever they say.
inline std::string blockFile(qint64 blockSize, qint32 payloadSize, const QByteArray& payload)
{
    std::string file(12, '\0');
    std::memcpy(file.data(), &blockSize, sizeof blockSize);
    std::memcpy(file.data() + 8, &payloadSize, sizeof payloadSize);
    return file + payload.toStdString();
}

/// The file that the store writes.
inline std::string blockFileOf(const QByteArray& content)
{
    const QByteArray payload = qCompress(content, s_StoreLevel);
    return blockFile(content.size(), payload.size(), payload);
}
