#include "tools/files/FileKind.h"

#include <system_error>

#include <sys/stat.h>

std::string FileKind::whyNotAFile(mode_t mode)
{
    if (S_ISREG(mode))
        return {};
    if (S_ISDIR(mode))
        return "is a folder";
    if (S_ISFIFO(mode))
        return "is a named pipe";
    if (S_ISSOCK(mode))
        return "is a socket";
    if (S_ISCHR(mode))
        return "is a character device";
    if (S_ISBLK(mode))
        return "is a block device";
    return "is not a file";
}

std::string FileKind::errorText(int number)
{
    return std::generic_category().message(number);
}
