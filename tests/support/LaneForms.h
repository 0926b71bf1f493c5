#pragma once

#include "hash/SkeinLaneForm.h"
#include "hash/SkeinLaneKernel.h"

#include <cstddef>
#include <vector>

/// The lane forms that a test can force: every form that this processor can run, and the widths of
/// the others in plain instructions, so that code for other processors is tested on this one, too.
namespace LaneForms {

#ifdef ZEB_SKEIN_HAS_VECTORS
template <typename Vector>
void absorbPlainly(ZebSkein::SkeinLaneSet& set, std::size_t blockCount)
{
    ZebSkein::SkeinLaneKernel<Vector>::absorb(set, blockCount);
}
#endif

inline std::vector<ZebSkein::SkeinLaneForm> all()
{
    std::vector<ZebSkein::SkeinLaneForm> forms = ZebSkein::SkeinLaneForm::available();
#ifdef ZEB_SKEIN_HAS_VECTORS
    forms.push_back({"plain of 4", 4, 3, &absorbPlainly<ZebSkein::WordsOf4>});
    forms.push_back({"plain of 8", 8, 3, &absorbPlainly<ZebSkein::WordsOf8>});
#endif
    return forms;
}

} // namespace LaneForms
