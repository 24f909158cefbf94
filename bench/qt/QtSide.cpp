#include "bench/framework/QtSide.h"

#include <QCoreApplication>
#include <memory>
#include <vector>

#include "bench/qt/QtObjects.h"

namespace bench {
namespace {

// Qt wants an application before it delivers.
void makeApplication() {
  static int count = 1;
  static char name[] = "bench";
  static char* arguments[] = {name, nullptr};
  static QCoreApplication application(count, arguments);
}

}  // namespace

void dispatchQt(benchmark::State& state, int observers) {
  QtSender sender;
  std::vector<std::unique_ptr<QtReceiver>> receivers;
  for (int i = 0; i < observers; ++i) {
    receivers.push_back(std::make_unique<QtReceiver>());
    QObject::connect(&sender, &QtSender::changed, receivers.back().get(), &QtReceiver::onChange);
  }
  for (auto _ : state) {
    emit sender.changed();
    benchmark::ClobberMemory();
  }
}

void deliverQt(benchmark::State& state, std::uint32_t waiting) {
  makeApplication();
  QtSender sender;
  QtReceiver receiver;
  QObject::connect(&sender, &QtSender::keyChanged, &receiver, &QtReceiver::onKey,
                   Qt::QueuedConnection);
  while (state.KeepRunningBatch(waiting)) {
    for (std::uint32_t key = 0; key < waiting; ++key) emit sender.keyChanged(key);
    QCoreApplication::sendPostedEvents();
  }
}

}  // namespace bench
