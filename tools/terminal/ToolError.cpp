#include "tools/terminal/ToolError.h"

#include "tools/terminal/PathText.h"

#include <new>
#include <system_error>

ToolError ToolError::ofSystem(int code)
{
    return ToolError(std::generic_category().message(code), code);
}

std::optional<ToolError> ToolError::of(const std::function<void()>& work)
{
    try {
        work();
    } catch (const ToolError& error) {
        return error;
    } catch (const std::bad_alloc&) {
        return ToolError("out of memory");
    } catch (const std::exception& error) {
        return ToolError(error.what());
    }
    return std::nullopt;
}

void ToolError::locate(const std::string& path, const std::function<void()>& work)
{
    const std::optional<ToolError> error = of(work);
    if (error)
        throw ToolError(PathText::printable(path) + ": " + error->what(), error->code());
}
