#!/usr/bin/python3
"""Implicit TLS in front of a plaintext SMTP server, for the TLS rows of the benchmark: every client
meets the same server behind the same TLS. tls_proxy.py CERT KEY TARGET_PORT prints its port."""
import asyncio, ssl, sys  # noqa: E401

cert, key, target = sys.argv[1], sys.argv[2], int(sys.argv[3])
context = ssl.create_default_context(ssl.Purpose.CLIENT_AUTH)
context.load_cert_chain(cert, key)


async def pump(reader, writer):
    try:
        while data := await reader.read(1 << 18):
            writer.write(data)
            await writer.drain()
    finally:
        writer.close()


async def forward(reader, writer):
    upstream = await asyncio.open_connection("127.0.0.1", target)
    await asyncio.gather(pump(reader, upstream[1]), pump(upstream[0], writer), return_exceptions=True)


async def main():
    server = await asyncio.start_server(forward, "127.0.0.1", 0, ssl=context)
    print(server.sockets[0].getsockname()[1], flush=True)
    await server.serve_forever()

asyncio.run(main())
