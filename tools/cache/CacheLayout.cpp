#include "tools/cache/CacheLayout.h"

#include "io/ZebBlockPlace.h"
#include "tools/cache/CacheFiles.h"
#include "tools/terminal/PathText.h"
#include "tools/terminal/ToolError.h"

#include <algorithm>
#include <cstddef>
#include <map>
#include <numeric>
#include <utility>

namespace {

using File = CacheFiles::File;

// Each sub-cache's share of the files to look at.
constexpr std::size_t s_MostFiles = 4096;
// The search tries every number of buckets with these.
constexpr std::size_t s_MostSearched = 256;
// Some other layout fits fewer files by chance.
constexpr std::size_t s_FewestFiles = 8;
constexpr int s_MostBuckets = 1000000;
// The root follows from the sum of four digits: more roots than sums change nothing.
constexpr int s_MostRoots = 37;

constexpr int s_NoRoot = -1;

// The given roots in their order, as indexes.
std::vector<int> givenOrder(const StorePlace& place)
{
    std::vector<int> order(place.m_Roots.size());
    std::iota(order.begin(), order.end(), 0);
    return order;
}

/// The files of one sub-cache, and how well some roots and buckets fit their places.
class Sample
{
public:
    Sample(const CacheFiles& files, const std::vector<const File*>& all) : m_Files(files)
    {
        const std::size_t step = (all.size() + s_MostFiles - 1) / s_MostFiles;
        for (std::size_t i = 0; i < all.size(); i += step)
            m_Sample.push_back(all[i]);
    }

    std::size_t size() const { return m_Sample.size(); }

    /// The number of buckets that fits most files; the given number unless another one is better.
    int buckets() const
    {
        std::vector<const File*> searched;
        const std::size_t step = (size() + s_MostSearched - 1) / s_MostSearched;
        for (std::size_t i = 0; i < size(); i += step)
            searched.push_back(m_Sample[i]);
        int best = m_Files.place().m_Buckets;
        std::size_t fewestMisses = misses(searched, best, searched.size());
        for (int buckets = 1; buckets <= s_MostBuckets && fewestMisses > 0; ++buckets) {
            const std::size_t missed = misses(searched, buckets, fewestMisses);
            if (missed < fewestMisses) {
                best = buckets;
                fewestMisses = missed;
            }
        }
        return best;
    }

    /// For each root of the store, the index of the given root that it is, or s_NoRoot. The given
    /// roots in their order unless others are better.
    std::vector<int> roots() const
    {
        const std::vector<int> given = givenOrder(m_Files.place());
        std::vector<int> best;
        std::size_t mostFit = fit(given);
        const int most = std::max(static_cast<int>(given.size()), s_MostRoots);
        // The last of equal ones: the files of a single root fit a store of that root alone, too.
        for (int count = 1; count <= most; ++count) {
            std::vector<int> order = orderOf(count);
            const std::size_t fits = fit(order);
            if (fits > mostFit || (fits == mostFit && !best.empty())) {
                best = std::move(order);
                mostFit = fits;
            }
        }
        return best.empty() ? given : best;
    }

    /// How many files are in place.
    std::size_t fit(const std::vector<int>& roots, int buckets) const
    {
        return countIf(
            [&](const File& file) { return isInRoot(file, roots) && isInBucket(file, buckets); });
    }

private:
    template <typename Condition>
    std::size_t countIf(Condition condition) const
    {
        return static_cast<std::size_t>(
            std::count_if(m_Sample.begin(), m_Sample.end(),
                          [&condition](const File* file) { return condition(*file); }));
    }

    std::size_t fit(const std::vector<int>& roots) const
    {
        return countIf([&](const File& file) { return isInRoot(file, roots); });
    }

    bool isInBucket(const File& file, int buckets) const
    {
        const quint32 wanted =
            ZebBlockPlace::bucketOf(file.m_Name.digest(), ZebBlockName::s_Bytes, buckets);
        return m_Files.directoryOf(file).m_Bucket == static_cast<int>(wanted);
    }

    bool isInRoot(const File& file, const std::vector<int>& roots) const
    {
        const int wanted = rootOf(file, static_cast<int>(roots.size()));
        return wanted >= 0 && roots[static_cast<std::size_t>(wanted)] ==
                                  static_cast<int>(m_Files.directoryOf(file).m_Root);
    }

    static int rootOf(const File& file, int roots)
    {
        return ZebBlockPlace::of(file.m_Name, roots, 1).m_Root;
    }

    // How many of these files are in another bucket; at least `enough` where the count ended early.
    std::size_t misses(const std::vector<const File*>& files, int buckets, std::size_t enough) const
    {
        std::size_t missed = 0;
        for (const File* file : files) {
            missed += isInBucket(*file, buckets) ? 0 : 1;
            if (missed >= enough)
                break;
        }
        return missed;
    }

    // The order of the given roots in a store with this many: the most files decide first.
    std::vector<int> orderOf(int count) const
    {
        std::map<std::pair<int, int>, std::size_t> found;
        for (const File* file : m_Sample) {
            const int wanted = rootOf(*file, count);
            if (wanted >= 0)
                ++found[{wanted, static_cast<int>(m_Files.directoryOf(*file).m_Root)}];
        }
        std::vector<std::pair<std::size_t, std::pair<int, int>>> byFiles;
        byFiles.reserve(found.size());
        for (const auto& [pair, files] : found)
            byFiles.push_back({files, pair});
        std::sort(byFiles.rbegin(), byFiles.rend());
        std::vector<int> order(static_cast<std::size_t>(count), s_NoRoot);
        std::vector<bool> isUsed(m_Files.place().m_Roots.size(), false);
        for (const auto& [files, pair] : byFiles) {
            int& root = order[static_cast<std::size_t>(pair.first)];
            const auto index = static_cast<std::size_t>(pair.second);
            if (root == s_NoRoot && !isUsed[index]) {
                root = pair.second;
                isUsed[index] = true;
            }
        }
        return order;
    }

    const CacheFiles& m_Files;
    std::vector<const File*> m_Sample;
};

std::string optionsFor(const StorePlace& place, const std::vector<int>& roots, int buckets)
{
    std::string text;
    if (roots != givenOrder(place)) {
        for (const int root : roots) {
            text += " --root ";
            text += root == s_NoRoot
                        ? "(a root that was not given)"
                        : PathText::printable(place.m_Roots[static_cast<std::size_t>(root)]);
        }
    }
    if (buckets != place.m_Buckets)
        text += " --buckets " + std::to_string(buckets);
    return text;
}

} // namespace

std::vector<std::string> CacheLayout::contradictions(const CacheFiles& files)
{
    std::map<std::string, std::vector<const File*>> subCaches;
    for (const File& file : files.files()) {
        if (!files.isInPlace(file))
            subCaches[files.directoryOf(file).m_SubCache];
    }
    for (const File& file : files.files()) {
        const auto subCache = subCaches.find(files.directoryOf(file).m_SubCache);
        if (subCache != subCaches.end())
            subCache->second.push_back(&file);
    }
    std::vector<std::string> texts;
    for (const auto& [subCache, all] : subCaches) {
        if (all.size() < s_FewestFiles)
            continue;
        const Sample sample(files, all);
        const std::vector<int> roots = sample.roots();
        const int buckets = sample.buckets();
        const std::size_t fits = sample.fit(roots, buckets);
        const std::size_t given = sample.fit(givenOrder(files.place()), files.place().m_Buckets);
        if (fits <= given)
            continue;
        texts.push_back(std::to_string(fits) + " of the " + std::to_string(sample.size()) +
                        " files " + (sample.size() < all.size() ? "looked at " : "") + "in " +
                        (subCache.empty() ? "the unnamed sub-cache"
                                          : "sub-cache " + PathText::printable(subCache)) +
                        " fit" + optionsFor(files.place(), roots, buckets) + ", but only " +
                        std::to_string(given) + " fit what was given");
    }
    return texts;
}

void CacheLayout::require(const CacheFiles& files)
{
    const std::vector<std::string> texts = contradictions(files);
    if (texts.empty())
        return;
    std::string all;
    for (const std::string& text : texts)
        all += text + "; ";
    throw ToolError(all + "pass the options that fit, and --sub-cache where sub-caches differ");
}
