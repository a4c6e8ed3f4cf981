#include "relay_process.h"

#include "deadline.h"
#include "tcp_relay.h"

#include <QCoreApplication>

#include <iostream>
#include <string>
#include <unistd.h>

namespace
{

const char Argument[] = "--relay";
const std::string Delay = "delay ";
const std::string HoleAt = "hole at ";
constexpr int AnswerMs = 10000;

void obey(TcpRelay &relay, const std::string &word)
{
    if (word == "cut")
        relay.cut();
    else if (word == "half")
        relay.halfClose();
    else if (word == "hole")
        relay.blackHole();
    else if (word == "heal")
        relay.heal();
    else if (word.compare(0, HoleAt.size(), HoleAt) == 0)
        relay.blackHoleAt(word.substr(HoleAt.size()));
    else if (word.compare(0, Delay.size(), Delay) == 0)
        relay.delay(std::stoi(word.substr(Delay.size())));
}

} // namespace

RelayProcess::~RelayProcess()
{
    m_process.closeWriteChannel(); // ends it
    if (m_process.state() != QProcess::NotRunning && !m_process.waitForFinished(scaledMs(AnswerMs)))
        m_process.kill();
    m_process.waitForFinished();
}

bool RelayProcess::start(quint16 serverPort)
{
    m_process.start(QCoreApplication::applicationFilePath(),
                    {QString::fromLatin1(Argument), QString::number(serverPort)});
    m_port = order(QByteArray()).toUShort();
    return m_port != 0;
}

QByteArray RelayProcess::order(const QByteArray &word)
{
    if (!word.isEmpty())
        m_process.write(word + '\n');
    while (!m_process.canReadLine()) {
        if (!m_process.waitForReadyRead(scaledMs(AnswerMs)))
            return QByteArray();
    }
    return m_process.readLine().trimmed();
}

bool RelayProcess::runRelay(int argc, char **argv)
{
    if (argc != 3 || std::string(argv[1]) != Argument)
        return false;
    closefrom(STDERR_FILENO + 1); // as server_guard.cpp does
    TcpRelay relay;
    relay.start(quint16(std::stoi(argv[2])));
    std::cout << relay.port() << std::endl;
    for (std::string word; std::getline(std::cin, word);) {
        obey(relay, word);
        std::cout << "done" << std::endl;
    }
    return true;
}
