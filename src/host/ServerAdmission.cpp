// The server's admission of a peer: limits per address, and the authentication that decides
// what the connection may do.

#include "Console.h"
#include "HostHello.h"
#include "Server.h"
#include "base/Net.h"

#include <udt/udt.h>

namespace VESK {
namespace host {

QString Server::addressRefusal(const QString& address) {
    if (m_failures.blocked(address))
        return kTooManyFailures;
    const auto count = m_perAddress.find(address);
    if (count != m_perAddress.end() && count->second >= m_config.maxPerAddress)
        return kTooManyFromAddress;
    return QString();
}

bool Server::admitPeer(int socket, const QString& peer, const QDeadlineTimer& deadline,
                       const QString& protocol, const QString& version, TaskPolicy* policy) {
    QString error;
    if (!m_config.authenticate) {
        if (!answerHello(socket, QString(), &error)) {
            printErr(QString("vesk: %1: cannot answer the hello (%2)").arg(peer, error));
            UDT::close(socket);
            return false;
        }
        *policy = policyFor(m_config, QString());
        return true;
    }
    QString user;
    switch (
        authenticateClient(socket, deadline, m_config.secrets, protocol, version, &user, &error)) {
    case AuthResult::Authenticated:
        *policy = policyFor(m_config, user);
        return true;
    case AuthResult::Rejected:
        m_failures.recordFailure(peer.left(peer.lastIndexOf(':')));
        printOut(QString("%1 - - 0 bytes 0.00 s refused: %2").arg(peer, kAuthenticationFailed));
        net::drainAndClose(socket);
        return false;
    case AuthResult::Failed:
        break;
    }
    printErr(QString("vesk: %1 broke off the hello (%2)").arg(peer, error));
    net::drainAndClose(socket);
    return false;
}

} // namespace host
} // namespace VESK
