#pragma once

#include <string>
#include <vector>

/// What stands in a folder, by bytes.
namespace FolderNames {

enum class Order
{
    /// By their bytes.
    Sorted,
    /// As the file system has them, which costs least.
    AsRead
};

/// Reads the names in a folder, without "." and "..". Gives the reason when that fails; `names` has
/// what came before the failure.
[[nodiscard]] std::string read(const std::string& folder, std::vector<std::string>& names,
                               Order order = Order::Sorted);

/// A name, and whether the folder itself tells that it is a plain file's. Not every file system
/// tells.
struct Entry
{
    std::string m_Name;
    bool m_IsSurelyFile = false;
};

/// The same as the file system has them, with what it tells of them.
[[nodiscard]] std::string readEntries(const std::string& folder, std::vector<Entry>& entries);

/// The path of a name in a folder.
std::string joined(const std::string& folder, const std::string& name);

} // namespace FolderNames
