#include "hash/SkeinLaneForm.h"

#include "hash/SkeinLaneKernel.h"

namespace ZebSkein {

namespace {

// Eight lanes take about twice as long as one message alone, four lanes about two and a half times
// as long. So either is faster than three messages one after another.
constexpr std::size_t s_Fewest = 3;

constexpr SkeinLaneForm s_Scalar = {"scalar", 1, 1, nullptr};

#if defined(ZEB_SKEIN_HAS_VECTORS) && defined(__x86_64__)

__attribute__((target("avx2"))) void absorbAvx2(SkeinLaneSet& set, std::size_t blockCount)
{
    SkeinLaneKernel<WordsOf4>::absorb(set, blockCount);
}

__attribute__((target("avx512f"))) void absorbAvx512(SkeinLaneSet& set, std::size_t blockCount)
{
    SkeinLaneKernel<WordsOf8>::absorb(set, blockCount);
}

std::vector<SkeinLaneForm> detect()
{
    std::vector<SkeinLaneForm> forms = {s_Scalar};
    // These also check that the system saves the wide registers of a thread.
    __builtin_cpu_init();
    if (__builtin_cpu_supports("avx2"))
        forms.push_back({"avx2", 4, s_Fewest, &absorbAvx2});
    if (__builtin_cpu_supports("avx512f"))
        forms.push_back({"avx512", 8, s_Fewest, &absorbAvx512});
    return forms;
}

#else

std::vector<SkeinLaneForm> detect()
{
    return {s_Scalar};
}

#endif

} // namespace

const SkeinLaneForm& SkeinLaneForm::scalar()
{
    return s_Scalar;
}

const std::vector<SkeinLaneForm>& SkeinLaneForm::available()
{
    // Never destroyed: a digest may still be computed while the process exits.
    static const auto* const forms = new std::vector<SkeinLaneForm>(detect());
    return *forms;
}

const SkeinLaneForm& SkeinLaneForm::best()
{
    return available().back();
}

} // namespace ZebSkein
