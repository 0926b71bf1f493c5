#include "tools/files/StoredFiles.h"

void StoredFiles::dropFailed()
{
    for (StoredSegment& segment : m_Segments) {
        if (!m_Files[segment.m_File].m_Failed.load())
            continue;
        segment.m_Blocks.clear();
        segment.m_Bytes = 0;
        segment.m_Complete = false;
    }
    for (StoredFile& file : m_Files) {
        if (file.m_Failed.load())
            file.m_Group = ZebDataReference();
    }
}
