#pragma once

#include "support/TemporaryTree.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QProcessEnvironment>
#include <QStringList>

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

// Runs the program as a user does, in a separate process.

inline constexpr int s_ProgramDeadlineMs = 120000;

/// The outcome of a run.
struct Outcome
{
    int m_Status = -1;
    std::string m_Output;
    std::string m_Errors;

    QJsonObject json() const
    {
        const QJsonDocument document = QJsonDocument::fromJson(QByteArray::fromStdString(m_Output));
        EXPECT_TRUE(document.isObject()) << m_Output;
        return document.object();
    }
    qint64 number(const char* key) const
    {
        const QJsonValue value = json()[QLatin1String(key)];
        EXPECT_TRUE(value.isDouble()) << key;
        return static_cast<qint64>(value.toDouble());
    }
    int errorLines() const
    {
        return static_cast<int>(std::count(m_Errors.begin(), m_Errors.end(), '\n'));
    }
};

inline Outcome finish(QProcess& process)
{
    Outcome outcome;
    EXPECT_TRUE(process.waitForFinished(s_ProgramDeadlineMs)) << qPrintable(process.errorString());
    EXPECT_EQ(process.exitStatus(), QProcess::NormalExit);
    outcome.m_Status = process.exitCode();
    outcome.m_Output = process.readAllStandardOutput().toStdString();
    outcome.m_Errors = process.readAllStandardError().toStdString();
    return outcome;
}

inline QStringList asArguments(const std::vector<std::string>& arguments)
{
    QStringList list;
    for (const std::string& argument : arguments)
        list.append(QString::fromStdString(argument));
    return list;
}

inline void setLanguage(QProcess& process)
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("LC_ALL"), QStringLiteral("C"));
    process.setProcessEnvironment(environment);
}

/// A process without the rights of the superuser, as whom tests may run: permissions count. It runs
/// the program through a descriptor, since a user without rights may not reach its directory.
class UnprivilegedProcess : public QProcess
{
public:
    UnprivilegedProcess() : m_Program(::open(ZEBTDX_PROGRAM, O_RDONLY)) {}
    ~UnprivilegedProcess() override { ::close(m_Program); }

    QString path() const { return QStringLiteral("/proc/self/fd/%1").arg(m_Program); }

protected:
    void setupChildProcess() override
    {
        constexpr unsigned int otherUser = 65534;
        if (::geteuid() == 0 && (::setgid(otherUser) != 0 || ::setuid(otherUser) != 0))
            ::_exit(127);
    }

private:
    int m_Program;
};

inline Outcome runUnprivileged(const std::vector<std::string>& arguments, const std::string& folder)
{
    UnprivilegedProcess process;
    setLanguage(process);
    process.setWorkingDirectory(QString::fromStdString(folder));
    process.start(process.path(), asArguments(arguments));
    return finish(process);
}

inline Outcome runTool(const std::vector<std::string>& arguments, const std::string& folder = "/")
{
    QProcess process;
    setLanguage(process);
    process.setWorkingDirectory(QString::fromStdString(folder));
    process.start(QStringLiteral(ZEBTDX_PROGRAM), asArguments(arguments));
    return finish(process);
}

/// `zebtdx ingest` with a cache and a manifest of its own, which are removed afterwards. The
/// arguments are those after the command.
inline Outcome runIngest(const std::vector<std::string>& arguments, const std::string& folder = "/")
{
    const TemporaryTree scratch;
    std::vector<std::string> line = {"ingest", "--root", scratch.path("cache"), "--manifest",
                                     scratch.path("manifest")};
    line.insert(line.end(), arguments.begin(), arguments.end());
    return runTool(line, folder);
}

/// Through a shell, for arguments that are not valid text.
inline Outcome runShell(const std::string& commandLine, const std::string& folder)
{
    QProcess process;
    setLanguage(process);
    process.setWorkingDirectory(QString::fromStdString(folder));
    process.start(QStringLiteral("/bin/sh"),
                  {QStringLiteral("-c"), QString::fromStdString(commandLine),
                   QStringLiteral(ZEBTDX_PROGRAM)});
    return finish(process);
}
