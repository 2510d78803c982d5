"""The Python classes of the agent's messages and services.

An installed vornctl has them beside it. Another one makes them from the repository's .proto files on first use, and
keeps them in a cache folder named after what they were made from, so that a changed file or another version of gRPC
gets stubs of its own.

usage, for the package: stubs.py FOLDER makes them, and a file "version", in a new folder
"""

import hashlib
import importlib
import importlib.util
import os
import re
import sys
from pathlib import Path
from types import SimpleNamespace

ROOT = Path(__file__).resolve().parents[1]
INSTALLED = ROOT / "stubs"
PROTOS = (
    "VornSdkRpcProtos/VornSdkRpc.proto",
    "agents/routing/RoutingAgent.proto",
    "agents/routing/PolicyService.proto",
)


class StubError(Exception):
    """The stubs can't be made or loaded; one line for the user."""


def load() -> SimpleNamespace:
    """The stub modules: sdk (the SDK's messages), agent (the agent's), rpc (its services), and both of the policy."""
    try:
        folder = INSTALLED if INSTALLED.is_dir() else _folder()
        if not folder.is_dir():
            _generate(folder)
        sys.path.insert(0, str(folder))
        return SimpleNamespace(
            sdk=importlib.import_module("VornSdkRpcProtos.VornSdkRpc_pb2"),
            agent=importlib.import_module("agents.routing.RoutingAgent_pb2"),
            rpc=importlib.import_module("agents.routing.RoutingAgent_pb2_grpc"),
            policy=importlib.import_module("agents.routing.PolicyService_pb2"),
            policy_rpc=importlib.import_module("agents.routing.PolicyService_pb2_grpc"),
        )
    except OSError as error:
        raise StubError(f"the stubs can't be made: {error.strerror}: {error.filename}") from error
    except RuntimeError as error:
        raise StubError(f"no place for the stubs: {error} Set XDG_CACHE_HOME.") from error
    except (ImportError, TypeError) as error:  # protobuf answers stubs of another version with TypeError
        raise StubError(f"the stubs in {folder} can't be loaded: {error}") from error


def version() -> str:
    """The version of the project that this client belongs to."""
    if INSTALLED.is_dir():
        return (INSTALLED / "version").read_text().strip()
    found = re.search(r"project\(VornSdkRpc VERSION ([\d.]+)", (ROOT / "CMakeLists.txt").read_text())
    return found[1] if found else "unknown"


def _folder() -> Path:
    import google.protobuf
    import grpc

    made_from = hashlib.sha256(f"{grpc.__version__} {google.protobuf.__version__}".encode())
    for proto in PROTOS:
        content = (ROOT / proto).read_bytes()
        made_from.update(f" {proto} {len(content)} ".encode() + content)
    cache = Path(os.environ.get("XDG_CACHE_HOME", ""))
    if not cache.is_absolute():
        cache = Path.home() / ".cache"
    return cache / "vornctl" / made_from.hexdigest()[:32]


def _generate(folder: Path) -> None:
    """Makes the stubs beside their folder, then moves them there at once: whoever looks at the same time
    finds nothing or all of it, and of two that make them one moves first."""
    import subprocess
    import tempfile

    folder.parent.mkdir(mode=0o700, parents=True, exist_ok=True)
    with tempfile.TemporaryDirectory(prefix="making-", dir=folder.parent) as scratch:
        made = Path(scratch, "stubs")
        made.mkdir()
        outcome = subprocess.run(
            [*_protoc(), f"-I{ROOT}", f"--python_out={made}", f"--grpc_python_out={made}", *PROTOS],
            cwd=ROOT,
            stdin=subprocess.DEVNULL,
            capture_output=True,
            text=True,
            check=False,
        )
        if outcome.returncode != 0:
            reason = " ".join((outcome.stderr or outcome.stdout).split())
            raise StubError(f"protoc failed with exit code {outcome.returncode}: {reason}")
        # Real packages, so that no other package named "agents" is found instead of this one.
        for package in (made / "VornSdkRpcProtos", made / "agents", made / "agents/routing"):
            (package / "__init__.py").touch()
        try:
            made.rename(folder)
        except OSError:
            if not folder.is_dir():
                raise


def _protoc() -> list[str]:
    import shutil

    protoc, plugin = shutil.which("protoc"), shutil.which("grpc_python_plugin")
    if protoc and plugin:
        return [protoc, f"--plugin=protoc-gen-grpc_python={plugin}"]
    if importlib.util.find_spec("grpc_tools"):
        return [sys.executable, "-m", "grpc_tools.protoc"]
    missing = " and ".join(name for name, found in (("protoc", protoc), ("grpc_python_plugin", plugin)) if not found)
    raise StubError(
        f"{missing} not found, which the first use needs:" " apt-get install protobuf-compiler protobuf-compiler-grpc"
    )


if __name__ == "__main__":
    _generate(Path(sys.argv[1]))
    Path(sys.argv[1], "version").write_text(version() + "\n")
