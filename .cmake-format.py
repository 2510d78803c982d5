# The layout of CMake files, which CI checks.
with section("format"):
    line_width = 120
    tab_size = 2
    max_subgroups_hwrap = 4
    max_pargs_hwrap = 8
    dangle_parens = True
with section("markup"):
    enable_markup = False
with section("parse"):
    additional_commands = {
        "vornsdkrpc_generate": {
            "flags": ["MESSAGES_ONLY"],
            "kwargs": {"TARGET": 1, "PROTOS": "+", "IMPORT_DIRS": "+"},
        }
    }
