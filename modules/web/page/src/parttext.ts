/** "Arm/Pose~x~0": a key, and where in its value the number is. What separates is escaped in names. */
export const partText = (key: string, path: string[]): string => [key, ...path].map((each) => each.replace(/[%~,|]/g, encodeURIComponent)).join('~');

export const partOf = (text: string): { key: string; path: string[] } => {
  const [key, ...path] = text.split('~').map(decodeURIComponent);
  return { key, path };
};
