"""How long a service of five methods takes to compile with the kit, beside the callback API.

python3 bench/compile_time.py [ROUNDS], with a release build that stands

Both sources do the same by the same generated code, and are compiled by turns, as the bench itself
is. Prints the medians of the compiler's processor time, in seconds, and of the rounds' ratios.
"""

import json
import pathlib
import resource
import shlex
import statistics
import subprocess
import sys
import tempfile

BUILD = pathlib.Path("build/release")

PROTO = """syntax = "proto3";
package five;
message Item { string text = 1; }
service Five {
  rpc Create(Item) returns (Item);
  rpc Remove(Item) returns (Item);
  rpc Load(stream Item) returns (Item);
  rpc Watch(Item) returns (stream Item);
  rpc Talk(stream Item) returns (stream Item);
}
"""

KIT = """#include <VornSdkRpc/Rpc.h>
#include "five.grpc.pb.h"
namespace rpc = VornSdkRpc::rpc;
using five::Item;
class Served : public rpc::Service<five::Five> {
 public:
  Served() : Service("Five") {
    method(&Async::RequestCreate, [](const Item& item, Item& reply) { reply = item; return grpc::Status::OK; });
    method(&Async::RequestRemove, [](const Item&, Item&) { return grpc::Status::OK; });
    method(&Async::RequestLoad, [](rpc::Reader<Item>& items, Item& last) -> rpc::Task<> {
      while (co_await items.read(last)) {}
      co_return items.endStatus();
    });
    method(&Async::RequestWatch, [](rpc::Writer<Item>& watch, const Item& item) -> rpc::Task<> {
      while (co_await watch.write(item)) {}
      co_return watch.endStatus();
    });
    method(&Async::RequestTalk, [](rpc::ReaderWriter<Item, Item>& talk) -> rpc::Task<> {
      Item item;
      while (co_await talk.read(item)) {
        if (!co_await talk.write(item)) break;
      }
      co_return talk.endStatus();
    });
  }
};
std::shared_ptr<VornSdkRpc::GrpcService> make() { return std::make_shared<Served>(); }
"""

CALLBACK = """#include <grpcpp/grpcpp.h>
#include "five.grpc.pb.h"
using five::Item;
class Served : public five::Five::CallbackService {
  grpc::ServerUnaryReactor* Create(grpc::CallbackServerContext* call, const Item* item, Item* reply) override {
    *reply = *item;
    return done(call);
  }
  grpc::ServerUnaryReactor* Remove(grpc::CallbackServerContext* call, const Item*, Item*) override {
    return done(call);
  }
  grpc::ServerReadReactor<Item>* Load(grpc::CallbackServerContext*, Item* last) override {
    struct Load : grpc::ServerReadReactor<Item> {
      explicit Load(Item* into) : item(into) { StartRead(item); }
      void OnReadDone(bool ok) override { if (ok) StartRead(item); else Finish(grpc::Status::OK); }
      void OnDone() override { delete this; }
      Item* item;
    };
    return new Load(last);
  }
  grpc::ServerWriteReactor<Item>* Watch(grpc::CallbackServerContext*, const Item* item) override {
    struct Watch : grpc::ServerWriteReactor<Item> {
      explicit Watch(const Item* of) : item(of) { StartWrite(item); }
      void OnWriteDone(bool ok) override { if (ok) StartWrite(item); else Finish(grpc::Status::CANCELLED); }
      void OnDone() override { delete this; }
      const Item* item;
    };
    return new Watch(item);
  }
  grpc::ServerBidiReactor<Item, Item>* Talk(grpc::CallbackServerContext*) override {
    struct Talk : grpc::ServerBidiReactor<Item, Item> {
      Talk() { StartRead(&item); }
      void OnReadDone(bool ok) override { if (ok) StartWrite(&item); else Finish(grpc::Status::OK); }
      void OnWriteDone(bool ok) override { if (ok) StartRead(&item); else Finish(grpc::Status::CANCELLED); }
      void OnDone() override { delete this; }
      Item item;
    };
    return new Talk;
  }
  static grpc::ServerUnaryReactor* done(grpc::CallbackServerContext* call) {
    auto* reactor = call->DefaultReactor();
    reactor->Finish(grpc::Status::OK);
    return reactor;
  }
};
std::shared_ptr<grpc::Service> make() { return std::make_shared<Served>(); }
"""


def command() -> list[str]:
    """The compiler and its options, as the bench's own sources are compiled."""
    entries = json.loads((BUILD / "compile_commands.json").read_text())
    words = shlex.split(next(one for one in entries if one["file"].endswith("bench/KitServer.cpp"))["command"])
    words = words[: words.index("-o")]
    return words[1:] if words[0].endswith("ccache") else words


def compile_seconds(source: pathlib.Path) -> float:
    before = resource.getrusage(resource.RUSAGE_CHILDREN)
    subprocess.run([*command(), "-w", f"-I{source.parent}", "-c", source, "-o", "/dev/null"], check=True)
    after = resource.getrusage(resource.RUSAGE_CHILDREN)
    return after.ru_utime + after.ru_stime - before.ru_utime - before.ru_stime


def main() -> None:
    rounds = int(sys.argv[1]) if len(sys.argv) > 1 else 5
    with tempfile.TemporaryDirectory() as name:
        folder = pathlib.Path(name)
        (folder / "five.proto").write_text(PROTO)
        plugin = "protoc-gen-grpc=/usr/bin/grpc_cpp_plugin"
        subprocess.run(
            ["protoc", f"-I{name}", f"--cpp_out={name}", f"--grpc_out={name}", f"--plugin={plugin}", "five.proto"],
            check=True,
        )
        kit, callback = folder / "Kit.cpp", folder / "Callback.cpp"
        kit.write_text(KIT)
        callback.write_text(CALLBACK)
        pairs = []
        for number in range(rounds):
            order = (kit, callback) if number % 2 else (callback, kit)
            seconds = {source: compile_seconds(source) for source in order}
            pairs.append((seconds[kit], seconds[callback]))
    ours, theirs = (statistics.median(column) for column in zip(*pairs))
    ratio = statistics.median(one / other for one, other in pairs)
    print(f"kit {ours:.2f} s, callback API {theirs:.2f} s, ratio {ratio:.3f}")


main()
