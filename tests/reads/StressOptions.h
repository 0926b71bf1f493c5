#pragma once

#include <QtGlobal>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

/// What the command line of the stress sets.
struct StressOptions
{
    int m_Seconds = 3;
    quint32 m_Seed = 1;
    int m_Readers = 3;
    /// Time between two quiet points.
    int m_RoundMs = 120;
    /// A thread that makes no progress for this long is stuck.
    int m_StuckMs = 20000;
    /// A guard to switch off; only in the build with test points.
    std::string m_Mutant;
    /// In this many of 1000 arrivals at a test point, the thread lets others run.
    unsigned m_Yields = 0;

    static StressOptions parse(int argc, char** argv)
    {
        StressOptions options;
        for (int i = 1; i < argc; i += 2) {
            const std::string name = argv[i];
            if (i + 1 == argc)
                endWithUsage(name + " requires a value");
            const char* const value = argv[i + 1];
            if (name == "--mutant")
                options.m_Mutant = value;
            else
                options.setNumber(name, value);
        }
        return options;
    }

    [[noreturn]] static void endWithUsage(const std::string& error)
    {
        std::fprintf(stderr,
                     "%s\n"
                     "usage: ReadStress [--seconds N] [--seed N] [--threads N] [--round-ms N]\n"
                     "                  [--stuck-ms N] [--yields N] [--mutant GUARD]\n",
                     error.c_str());
        std::exit(2);
    }

private:
    void setNumber(const std::string& name, const char* value)
    {
        char* end = nullptr;
        const long number = std::strtol(value, &end, 10);
        if (*value == '\0' || *end != '\0' || number < 0 || number > 1000000)
            endWithUsage(name + ": not a number from 0 to 1000000: " + value);
        if (name == "--seconds")
            m_Seconds = static_cast<int>(number);
        else if (name == "--seed")
            m_Seed = static_cast<quint32>(number);
        else if (name == "--threads")
            m_Readers = static_cast<int>(number);
        else if (name == "--round-ms")
            m_RoundMs = static_cast<int>(number);
        else if (name == "--stuck-ms")
            m_StuckMs = static_cast<int>(number);
        else if (name == "--yields")
            m_Yields = static_cast<unsigned>(number);
        else
            endWithUsage("unknown argument: " + name);
    }
};
