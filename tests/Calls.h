#pragma once

#include <VornSdkRpc/Testing.h>
#include <grpcpp/grpcpp.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "tests/Test.grpc.pb.h"

namespace test {

inline Text textOf(std::string text) {
  Text message;
  message.set_text(std::move(text));
  return message;
}

inline Count countOf(std::uint32_t count) {
  Count message;
  message.set_count(count);
  return message;
}

// One Echo of a text.
inline VornSdkRpc::testing::Answer<Text> echo(
    Probe::Stub& stub, const std::string& text = "",
    std::chrono::milliseconds timeout = std::chrono::minutes(1)) {
  return VornSdkRpc::testing::call(stub, &Probe::Stub::Echo, textOf(text), timeout);
}

// A streaming call with its context, which ends before it would hang the test, and is cancelled
// when it has not ended by itself.
template <typename Stream>
struct Streaming {
  template <typename Open>
  explicit Streaming(Open open) {
    context.set_deadline(std::chrono::system_clock::now() + std::chrono::minutes(2));
    stream = open(&context);
  }
  ~Streaming() { context.TryCancel(); }
  Streaming(const Streaming&) = delete;
  Streaming& operator=(const Streaming&) = delete;

  Stream* operator->() const { return stream.get(); }

  // Reads to the end; returns how many items came.
  template <typename Item>
  int readAll(Item& item) const {
    int count = 0;
    while (stream->Read(&item))
      ++count;
    return count;
  }

  grpc::ClientContext context;
  Count collected;  // the answer to a client's stream, when it has ended
  std::unique_ptr<Stream> stream;
};

struct Chatting : Streaming<grpc::ClientReaderWriter<Text, Text>> {
  explicit Chatting(Probe::Stub& stub) : Streaming([&](auto* with) { return stub.Chat(with); }) {}
};

struct Ticking : Streaming<grpc::ClientReader<Text>> {
  explicit Ticking(Probe::Stub& stub, std::uint32_t count = 0)
      : Streaming([&](auto* with) { return stub.Tick(with, countOf(count)); }) {}
};

struct Collecting : Streaming<grpc::ClientWriter<Text>> {
  explicit Collecting(Probe::Stub& stub)
      : Streaming([&](auto* with) { return stub.Collect(with, &collected); }) {}
};

}  // namespace test
