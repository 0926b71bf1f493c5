#pragma once

#include <QtGlobal>

#include <string>
#include <vector>

/// Looks whether a store can be set up on cache roots. It writes nothing but a file for a moment,
/// of a name as long as that of a block.
class RootProbe
{
public:
    struct Check
    {
        /// Empty for what concerns all roots.
        std::string m_Root;
        /// "space"
        std::string m_Name;
        bool m_Fit = true;
        /// What was found, and what is to be done where it is not fit.
        std::string m_Text;
    };

    /// @param spaceBytes how much each root should have free at least
    RootProbe(const std::vector<std::string>& roots, qint64 spaceBytes);

    const std::vector<Check>& checks() const { return m_Checks; }
    bool isFit() const;

private:
    void probe(const std::string& root, qint64 spaceBytes);
    void probeWriting(const std::string& root);
    void probeSpace(const std::string& root, qint64 spaceBytes);
    void probePermissions(const std::string& root, unsigned int mode);
    void probeOthers(const std::vector<std::string>& roots);
    void probeApartness(const std::vector<std::string>& roots);
    void add(const std::string& root, const std::string& name, bool fit, const std::string& text);

    std::vector<Check> m_Checks;
};
