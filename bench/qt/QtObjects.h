// A sender and a receiver of Qt.
#pragma once

#include <QObject>
#include <cstdint>

class QtSender : public QObject {
  Q_OBJECT

 signals:
  void changed();
  void keyChanged(quint32 key);
};

class QtReceiver : public QObject {
  Q_OBJECT

 public slots:
  void onChange() { ++sum_; }
  void onKey(quint32 key) { sum_ += key; }

 private:
  std::uint64_t sum_ = 0;
};
