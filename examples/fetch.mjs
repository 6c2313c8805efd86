// fetch.mjs URL: the body of the answer on standard output. Exits with status 1 when the request fails.
import { execFile } from "node:child_process";
import { promisify } from "node:util";

// Performs a GET. Returns its result, a status code or a failure code, and the body.
async function request(url) {
  const description = url.replaceAll("|", "%7C"); // a bar would begin the next field
  const options = { encoding: "buffer", maxBuffer: Infinity };
  const { stdout } = await promisify(execFile)("webreq", ["-web", description], options);
  const lineEnd = stdout.indexOf("\n");
  return { result: Number(stdout.subarray(0, lineEnd)), body: stdout.subarray(lineEnd + 1, -1) };
}

if (process.argv.length < 3) {
  console.error("usage: fetch URL");
  process.exit(2);
}
const { result, body } = await request(process.argv[2]);
if (result >= 200 && result <= 299) {
  process.stdout.write(body);
} else {
  console.error(`fetch: the result is ${result}`);
  process.exitCode = 1;
}
