#pragma once

#include <QtGlobal>

#include <string>
#include <vector>

/// Checks whether a store can be set up on cache roots. Writes nothing but a temporary file, whose
/// name is as long as a block's.
class RootProbe
{
public:
    struct Check
    {
        /// Empty for a check of all roots together.
        std::string m_Root;
        /// "space"
        std::string m_Name;
        bool m_Fit = true;
        /// What was found, and what to do if it is not fit.
        std::string m_Text;
    };

    /// @param spaceBytes how much space each root needs at least
    RootProbe(const std::vector<std::string>& roots, qint64 spaceBytes);

    const std::vector<Check>& checks() const { return m_Checks; }
    bool isFit() const;

private:
    void probe(const std::string& root, qint64 spaceBytes);
    void probeWriting(const std::string& root);
    void probeSpace(const std::string& root, qint64 spaceBytes);
    void probeUse(const std::vector<std::string>& roots);
    void probeSeparation(const std::vector<std::string>& roots);
    void add(const std::string& root, const std::string& name, bool fit, const std::string& text);

    std::vector<Check> m_Checks;
};
