// Bundles the page and writes it as C++: each file plain and packed, named by a hash of its content.
import { createHash } from 'node:crypto';
import { readFileSync, writeFileSync } from 'node:fs';
import { gzipSync } from 'node:zlib';
import { build } from 'esbuild';

const kTypes = { js: 'text/javascript; charset=utf-8', css: 'text/css; charset=utf-8', '/': 'text/html; charset=utf-8' };

async function bundle(entry) {
  const result = await build({
    entryPoints: [entry],
    bundle: true,
    minify: true,
    write: false,
    charset: 'utf8',
    legalComments: 'none',
    target: ['es2021'],
    format: 'esm',
    jsx: 'automatic',
    jsxImportSource: 'preact',
    define: { 'process.env.NODE_ENV': '"production"' },
    logLevel: 'warning',
  });
  return Buffer.from(result.outputFiles[0].contents);
}

const tagOf = (bytes) => createHash('sha256').update(bytes).digest('hex').slice(0, 16);

const script = await bundle('src/main.tsx');
const style = await bundle('src/style.css');
const scriptPath = `/page-${tagOf(script)}.js`;
const stylePath = `/page-${tagOf(style)}.css`;
const page = Buffer.from(
  readFileSync('src/index.html', 'utf8').replace('SCRIPT', scriptPath).replace('STYLE', stylePath),
);

const files = [
  ['/', kTypes['/'], page],
  [scriptPath, kTypes.js, script],
  [stylePath, kTypes.css, style],
];

/** A C++ array: the longest literal that compilers promise to take is too short for a script. */
function bytesOf(name, bytes) {
  const lines = [];
  for (let at = 0; at < bytes.length; at += 32) lines.push(Array.from(bytes.subarray(at, at + 32), (b) => (b << 24) >> 24).join(','));
  return `constexpr char ${name}[] = {\n${lines.join(',\n')}};\n`;
}

let source = '#include "assets.h"\n\nnamespace HX::web {\nnamespace {\n\n';
let table = 'constexpr Asset kAssets[] = {\n';
let packedSize = 0;
files.forEach(([path, type, bytes], i) => {
  const packed = gzipSync(bytes, { level: 9 });
  packed[9] = 255; // The system it was packed on is nobody's business, and differs.
  packedSize += packed.length;
  source += bytesOf(`kPlain${i}`, bytes) + bytesOf(`kGzip${i}`, packed);
  table += `    {"${path}", "${type}", "${tagOf(bytes)}", {kPlain${i}, sizeof kPlain${i}}, {kGzip${i}, sizeof kGzip${i}}},\n`;
});
source += `${table}};\n\n}  // namespace\n\nstd::span<const Asset> assets() { return kAssets; }\n\n}  // namespace HX::web\n`;
writeFileSync('assets.cpp', source);

const kMost = 100 * 1024;
if (packedSize > kMost) {
  console.error(`the page has ${packedSize} bytes packed, and ${kMost} is the most that it may have`);
  process.exit(1);
}
