// Reads a recording with a reader that is not ours, by its index or as a stream, and prints a line of JSON for each message.
//
//   node read.mjs indexed|streamed FILE

import { open, readFile } from "node:fs/promises";
import { McapIndexedReader, McapStreamReader } from "@mcap/core";
import { decompress } from "fzstd";

const [way, file] = process.argv.slice(2);
const decompressHandlers = { zstd: (bytes, size) => decompress(bytes, new Uint8Array(Number(size))) };
const channels = new Map();
const schemas = new Map();
const text = new TextDecoder();

function print(message) {
  const channel = channels.get(message.channelId);
  const schema = schemas.get(channel.schemaId);
  console.log(JSON.stringify({
    topic: channel.topic,
    metadata: Object.fromEntries(channel.metadata),
    schema: { name: schema.name, encoding: schema.encoding, text: JSON.parse(text.decode(schema.data)) },
    sequence: message.sequence,
    time: Number(message.logTime) / 1e9,
    data: JSON.parse(text.decode(message.data)),
  }));
}

if (way === "indexed") {
  const handle = await open(file);
  const readable = {
    size: async () => BigInt((await handle.stat()).size),
    read: async (offset, length) => {
      const bytes = new Uint8Array(Number(length));
      await handle.read(bytes, 0, bytes.length, Number(offset));
      return bytes;
    },
  };
  const reader = await McapIndexedReader.Initialize({ readable, decompressHandlers });
  for (const [id, schema] of reader.schemasById) schemas.set(id, schema);
  for (const [id, channel] of reader.channelsById) channels.set(id, channel);
  for await (const message of reader.readMessages()) print(message);
  await handle.close();
} else {
  const reader = new McapStreamReader({ decompressHandlers, validateCrcs: true });
  reader.append(await readFile(file));
  for (let record = reader.nextRecord(); record; record = reader.nextRecord()) {
    if (record.type === "Schema") schemas.set(record.id, record);
    if (record.type === "Channel") channels.set(record.id, record);
    if (record.type === "Message") print(record);
  }
  if (!reader.done()) process.exitCode = 4;
}
