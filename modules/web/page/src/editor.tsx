import { useState } from 'preact/hooks';
import type { TypeName } from './batch';

/** What the person means to write: JSON as it is sent, and the type that it is to have. */
export interface Draft {
  type: TypeName;
  text: string;
}

export const kEditable: TypeName[] = ['Bool', 'Int', 'Int64', 'Float', 'Double', 'String', 'List', 'Map'];
const kIntegers = ['Int', 'Int64'];
const kDecimals = ['Float', 'Double'];

/** The draft as JSON. @throws What is wrong with it, in a sentence. */
export function rawOf({ type, text }: Draft): string {
  const plain = text.trim();
  if (type === 'String') return JSON.stringify(text);
  if (type === 'Bool') return plain === 'true' ? 'true' : 'false';
  if (kIntegers.includes(type) && !/^[-+]?\d+$/.test(plain)) throw new Error(`${plain || 'nothing'} is no whole number`);
  if (kDecimals.includes(type) && (plain === '' || !Number.isFinite(Number(plain)))) throw new Error(`${plain || 'nothing'} is no number`);
  if (kDecimals.includes(type)) return /[.eE]/.test(plain) ? String(Number(plain)) : plain.replace(/^\+/, '');
  if (kIntegers.includes(type)) return plain.replace(/^\+/, '');
  const value = JSON.parse(plain) as unknown;
  const isList = Array.isArray(value);
  if (type === 'List' && !isList) throw new Error('a list stands in brackets: [1, 2]');
  if (type === 'Map' && (isList || typeof value !== 'object' || value === null)) throw new Error('a map stands in braces: {"x": 1}');
  return plain;
}

export function Editor({ draft, onDraft, isTypeFixed }: { draft: Draft; onDraft: (draft: Draft) => void; isTypeFixed?: boolean }) {
  const [id] = useState(() => `editor-${Math.random().toString(36).slice(2)}`);
  const write = (text: string) => onDraft({ ...draft, text });
  return (
    <div class="editor">
      <div class="field">
        <label for={`${id}-type`}>Type</label>
        <select id={`${id}-type`} value={draft.type} disabled={isTypeFixed}
          onChange={(event) => onDraft({ ...draft, type: event.currentTarget.value as TypeName })}>
          {kEditable.map((type) => <option key={type}>{type}</option>)}
        </select>
      </div>
      <div class="field wide">
        <label for={`${id}-value`}>Value</label>
        {draft.type === 'Bool' ? (
          <select id={`${id}-value`} value={draft.text.trim() === 'true' ? 'true' : 'false'} onChange={(event) => write(event.currentTarget.value)}>
            <option>true</option>
            <option>false</option>
          </select>
        ) : ['String', 'List', 'Map'].includes(draft.type) ? (
          <textarea id={`${id}-value`} rows={draft.type === 'String' ? 2 : 5} spellcheck={false} value={draft.text}
            onInput={(event) => write(event.currentTarget.value)} />
        ) : (
          <input id={`${id}-value`} inputMode="decimal" autoComplete="off" value={draft.text} onInput={(event) => write(event.currentTarget.value)} />
        )}
      </div>
    </div>
  );
}
