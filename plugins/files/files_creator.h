#pragma once

#include "httpd/simple_creator_t.h"
#include "plugins/files/files_handler.h"

/// Factory of the handlers of one record; its parameters are those of File_Options.
class Files_Creator : public Simple_Creator_T<HTTP_Handler, Files_Handler> {
public:
    /// @param clock  says when what the cache holds is to be looked up again
    explicit Files_Creator(File_Cache::Clock clock = File_Cache::coarse_clock) : context_(clock) {}

    /// @return 0; -1 with errno and one error line when a parameter or the root is no good.
    int init(int argc, char** argv) override;

protected:
    Files_Handler* construct(void* memory) override;

private:
    Files_Context context_;
};
