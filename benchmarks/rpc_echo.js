// The peer of benchmarks/rpc_bench.cpp: JSON-RPC as Node programs serve it, by "net" at a Unix socket
// and by "ws" over TLS. Arguments: SOCKET CERTIFICATE KEY. Prints its port; ends when stdin does.
const fs = require('fs');
const https = require('https');
const net = require('net');
const { WebSocketServer } = require('ws');
const [socket, certificate, key] = process.argv.slice(2);

function answer(text) {
    const request = JSON.parse(text);
    return JSON.stringify({ id: request.id, jsonrpc: '2.0', result: request.params });
}

net.createServer((connection) => {
    let inbox = '';
    connection.on('error', () => {});
    connection.on('data', (data) => {
        inbox += data;
        const lines = inbox.split('\n');
        inbox = lines.pop();
        for (const line of lines)
            connection.write(answer(line) + '\n');
    });
}).listen(socket);

const server = https.createServer({ cert: fs.readFileSync(certificate), key: fs.readFileSync(key) });
new WebSocketServer({ server, perMessageDeflate: false }).on('connection', (connection) => {
    connection.on('error', () => {});
    connection.on('message', (text) => connection.send(answer(text)));
});
server.listen(0, '127.0.0.1', () => console.log(server.address().port));
process.stdin.on('end', () => process.exit(0)).resume();
